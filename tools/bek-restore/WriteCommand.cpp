#include "Commands.h"
#include "Common.h"
#include "Interruption.h"
#include "tools/common/Progress.h"
#include "tools/common/Text.h"
#include "tools/restore/RestorePlan.h"
#include "tools/restore/Restorer.h"
#include "tools/restore/TargetChecks.h"
#include "tools/restore/TargetDevice.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

namespace restore {

namespace {

using tools::sizeText;

struct WriteOptions {
    ImageOptions image;
    std::string device;
    bool mayOverwrite = false;
    bool isDryRun = false;
    bool skipsCompare = false;
};

struct Written {
    Restorer::Result result;
    double seconds = 0;
};

Written writeTo(TargetDevice& target, IImage& image, const RestorePlan& plan,
                const std::optional<Marker>& from, bool isCompared) {
    const auto begin = std::chrono::steady_clock::now();
    tools::Progress progress = tools::Progress::ofStandardError();
    Restorer restorer(
        image, plan, target, [&](Restorer::Phase phase, std::uint64_t bytes, std::uint64_t all) {
            Interruption::check();
            progress.show(phase == Restorer::Phase::copying ? "copying" : "comparing", bytes, all);
        });
    Written written{restorer.copy(from)};
    if (isCompared) {
        restorer.compare(written.result);
    }
    restorer.finish();
    written.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    return written;
}

tools::Json jsonOf(const WriteOptions& options, const RestorePlan& plan) {
    tools::Json document;
    document["image"] = options.image.image;
    document["device"] = options.device;
    document["volumeBytes"] = plan.volumeBytes;
    document["usedBytes"] = plan.usedBytes;
    document["usedBlocksKnown"] = !plan.takesAllBlocks;
    document["reason"] = tools::textOrNull(plan.reason);
    return document;
}

std::string textOf(const RestorePlan& plan) {
    return plan.takesAllBlocks ? "all " + sizeText(plan.volumeBytes) +
                                     ", as nothing tells which blocks are used (" + plan.reason + ")"
                               : sizeText(plan.usedBytes) + " of a volume of " + sizeText(plan.volumeBytes);
}

void report(const WriteOptions& options, const RestorePlan& plan, const TargetState& state) {
    if (options.image.isJson) {
        tools::Json document = jsonOf(options, plan);
        document["content"] = tools::textOrNull(state.content);
        document["resumableFrom"] =
            state.interrupted ? tools::Json(state.interrupted->position) : tools::Json();
        print(document);
        return;
    }
    std::ostringstream text;
    text << "Would write " << textOf(plan) << " to " << options.device << ".\n";
    if (state.interrupted) {
        text << "An earlier run has brought what is before byte " << state.interrupted->position
             << "; it would be gone on with.\n";
    } else if (!state.content.empty()) {
        text << "There is " << state.content << " on it, which would be lost.\n";
    }
    print(text.str());
}

void report(const WriteOptions& options, const RestorePlan& plan, const Written& written) {
    const Restorer::Result& result = written.result;
    if (options.image.isJson) {
        tools::Json document = jsonOf(options, plan);
        document["copiedBytes"] = result.copied;
        document["zeroBytes"] = result.zeros;
        document["resumedBytes"] = result.resumed;
        document["comparedBytes"] = result.compared;
        document["seconds"] = written.seconds;
        print(document);
        return;
    }
    std::ostringstream text;
    text << "Wrote " << textOf(plan) << " to " << options.device << " in "
         << tools::durationText(written.seconds);
    if (result.resumed > 0) {
        text << "; " << sizeText(result.resumed) << " of it had been brought by an earlier run";
    }
    text << (result.compared > 0 ? ". All of it was read back and is equal.\n" : ". It was not read back.\n");
    print(text.str());
}

bool isSameFile(const std::string& image, const std::string& device) {
    std::error_code ignored; // a path that can't be examined fails when it is opened
    return std::filesystem::equivalent(image, device, ignored);
}

int write(const WriteOptions& options) {
    const Interruption interruption;
    OpenedImage opened(options.image);
    if (isSameFile(options.image.image, options.device)) {
        throw std::invalid_argument("the image and " + options.device + " are one and the same");
    }
    TargetDevice target(options.device, !options.isDryRun);
    const RestorePlan plan = makePlan(opened.logger, *opened.image);
    const TargetState state = examineTarget(target, plan, options.mayOverwrite || options.isDryRun);
    if (options.isDryRun) {
        report(options, plan, state);
        return done;
    }
    const Written written = writeTo(target, *opened.image, plan, state.interrupted, !options.skipsCompare);
    report(options, plan, written);
    return done;
}

} // namespace

void declareWrite(CLI::App& app, Run& chosen) {
    auto options = std::make_shared<WriteOptions>();
    CLI::App& command = *app.add_subcommand(
        "write", "Bring a whole volume back to a device: its used blocks, read back and compared. If it is "
                 "interrupted, call it again: it goes on from there");
    declareImage(command, options->image);
    command.add_option("DEVICE", options->device, "The block device, or the file, that becomes the volume")
        ->required();
    command.add_flag("--overwrite", options->mayOverwrite,
                     "Even if there is a file system, or a table of partitions");
    command.add_flag("--dry-run", options->isDryRun,
                     "Look at both, say what would be done, and write nothing");
    command.add_flag("--no-compare", options->skipsCompare, "Don't read back what was written");
    command.callback([options, &chosen] { chosen = [options] { return write(*options); }; });
}

} // namespace restore
