#include "Commands.h"
#include "Common.h"
#include "common/BaseDirectories.h"
#include "tools/common/Progress.h"
#include "tools/common/Text.h"
#include "tools/restore/FileImage.h"
#include "tools/restore/RestorePlan.h"
#include "tools/restore/check/BlockComparison.h"
#include "tools/restore/check/FailureRecordingImage.h"
#include "tools/restore/check/FileLocations.h"
#include "tools/restore/check/FileSystemCheck.h"
#include "tools/restore/check/HeadCheck.h"
#include "tools/restore/check/TreeComparison.h"
#include "tools/restore/check/VolumeSize.h"
#include "tools/restore/view/ImageView.h"
#include "tools/restore/view/Mounting.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace restore {

namespace {

using check::Damage;
using check::Findings;
using Lifetime = view::ImageView::Lifetime;

struct CheckOptions {
    ImageOptions image;
    std::optional<std::string> snapshot;
    bool comparesFiles = false;
    std::optional<std::string> database; ///< the agent's database; its usual path if not given
};

/// The snapshot to compare with: its blocks, and a mount of it through an overlay.
struct Snapshot {
    explicit Snapshot(const std::string& path)
        : blocks(path, 0), view(addressOfFile(path), {}, Lifetime::endsWithProcess) {}

    static ImageAddress addressOfFile(const std::string& path) {
        ImageAddress address;
        address.text = path;
        address.path = path;
        return address;
    }

    FileImage blocks;
    view::ImageView view;
    std::optional<view::PrivateMount> mount;
    std::string mountFailure; ///< why it couldn't be mounted; empty if it is mounted
};

/// One check of one image, step by step.
class ImageCheck {
public:
    explicit ImageCheck(const CheckOptions& options)
        : options(options),
          opened(options.image),
          view(addressOf(options.image), options.image.secret, Lifetime::endsWithProcess) {
        if (options.snapshot) {
            snapshot.emplace(*options.snapshot);
        }
        view::enterPrivateMountNamespace();
    }

    void run() {
        if (!findFileSystem() || !readMaps()) {
            return;
        }
        checkHead();
        check::checkFileSystem(kind, view.device(), view.directory().path("root"), findings);
        judgeMaps();
        if (snapshot) {
            mountBoth();
            compareBlocks();
            if (options.comparesFiles) {
                compareFiles();
            }
        }
    }

    Findings findings;
    std::string kind;

private:
    bool findFileSystem() {
        try {
            kind = view::findKind(view.device());
            return true;
        } catch (const std::runtime_error& error) {
            findings.damage.push_back({"no-file-system", error.what(), ""});
            return false;
        }
    }

    /// A part of the image that can't be read counts as damage.
    bool readMaps() {
        check::FailureRecordingImage recording(*opened.image);
        try {
            plan = makePlan(opened.logger, recording);
        } catch (const std::runtime_error&) {
            plan.reset();
        }
        if (!recording.failure().empty()) {
            plan.reset();
            findings.damage.push_back({"unreadable", recording.failure(), ""});
        }
        return plan.has_value();
    }

    /// A backup copies every block of a volume whose map it can't read, for example because only the journal
    /// has the newest map. So an unreadable map is damage only if it is still unreadable after the journal
    /// has been replayed.
    void judgeMaps() {
        std::string reason = plan->reason;
        if (plan->takesAllBlocks) {
            FileImage replayed(view.device(), 0);
            reason = makePlan(opened.logger, replayed).reason;
        }
        if (!plan->takesAllBlocks && check::isTruncated(opened.logger, *opened.image, kind)) {
            findings.damage.push_back({"short", "it ends before its volume does", ""});
        }
        if (!reason.empty()) {
            findings.damage.push_back({"map", "its map of used blocks can't be read: " + reason, ""});
        } else if (plan->takesAllBlocks) {
            findings.proven.emplace_back("its map of used blocks can be read with its journal");
        } else {
            findings.proven.push_back("its map of used blocks tells of " + tools::sizeText(plan->usedBytes));
        }
    }

    void checkHead() {
        const std::string usual = (agent::dir::base() / "agent.sqlite").str();
        if (!options.database && !std::filesystem::exists(usual)) {
            return; // a rescue system has no database
        }
        try {
            const std::string uuid = view::uuidOf(view.device());
            check::checkHead(*opened.image, options.database.value_or(usual), uuid, findings);
        } catch (const std::runtime_error& error) {
            findings.notProven.push_back(std::string("its head wasn't compared: ") + error.what());
        }
    }

    void mountBoth() {
        try {
            mount.emplace(view, kind);
        } catch (const view::NoDriver& error) {
            mountFailure = error.what();
        } catch (const std::runtime_error& error) {
            mountFailure = error.what();
            findings.damage.push_back({"mount", "its file system can't be mounted: " + mountFailure, ""});
        }
        try {
            snapshot->mount.emplace(snapshot->view, view::findKind(snapshot->view.device()));
        } catch (const std::runtime_error& error) {
            snapshot->mountFailure = error.what();
        }
    }

    std::vector<ByteRange> driverFiles() {
        return snapshot->mount ? check::locationsOfDriverFiles(opened.logger, snapshot->mount->root())
                               : std::vector<ByteRange>();
    }

    void compareBlocks() {
        if (snapshot->blocks.size() < plan->volumeBytes) {
            findings.damage.push_back({"blocks", "the snapshot is smaller than the volume in the image", ""});
            return;
        }
        tools::Progress progress = tools::Progress::ofStandardError();
        const check::Comparison comparison = check::compareBlocks(
            *opened.image, snapshot->blocks, *plan, driverFiles(),
            [&](std::uint64_t bytes, std::uint64_t all) { progress.show("comparing blocks", bytes, all); });
        findings.comparedBytes = comparison.compared;
        if (!comparison.unreadable.empty()) {
            findings.damage.push_back({"unreadable", comparison.unreadable, ""});
        } else if (comparison.difference) {
            findings.damage.push_back({"blocks", textOf(*comparison.difference), ""});
        } else {
            findings.proven.push_back(tools::sizeText(comparison.compared) + " of used blocks are those of " +
                                      *options.snapshot);
        }
    }

    std::string textOf(std::uint64_t difference) {
        std::string text =
            "the block with byte " + std::to_string(difference) + " differs from " + *options.snapshot;
        if (!snapshot->mount) {
            return text + "; as it can't be mounted (" + snapshot->mountFailure +
                   "), the snapshot driver's own files were compared too";
        }
        const std::string owner = check::ownerOf(opened.logger, snapshot->mount->root(), difference);
        return owner.empty() ? text : text + ": it belongs to " + owner;
    }

    void compareFiles() {
        if (!mount || !snapshot->mount) {
            findings.notProven.push_back("no file was compared: " +
                                         (mount ? snapshot->mountFailure : mountFailure));
            return;
        }
        const check::TreeDifferences trees = check::compareTrees(mount->root(), snapshot->mount->root());
        findings.comparedFiles = trees.files;
        if (trees.differences == 0) {
            findings.proven.push_back("all of its " + std::to_string(trees.files) + " files are those of " +
                                      *options.snapshot);
            return;
        }
        std::string details;
        for (const std::string& line : trees.first) {
            details += line + "\n";
        }
        findings.damage.push_back({"files",
                                   std::to_string(trees.differences) + " of its files differ from " +
                                       *options.snapshot + ": " + trees.first.front(),
                                   details});
    }

    const CheckOptions& options;
    OpenedImage opened;
    view::ImageView view;
    std::optional<Snapshot> snapshot;
    std::optional<RestorePlan> plan;
    std::optional<view::PrivateMount> mount;
    std::string mountFailure;
};

enum class Verdict { trusted, damaged, unknown };

/// A readable map alone proves nothing: the blocks it names may be wrong.
Verdict verdictOf(const Findings& findings) {
    constexpr std::size_t map = 1;
    return !findings.damage.empty()       ? Verdict::damaged
           : findings.proven.size() > map ? Verdict::trusted
                                          : Verdict::unknown;
}

std::string joined(const std::vector<std::string>& texts) {
    std::string all;
    for (const std::string& text : texts) {
        all += (all.empty() ? "" : "; ") + text;
    }
    return all;
}

std::string conclusionOf(const std::string& image, const Findings& findings) {
    switch (verdictOf(findings)) {
    case Verdict::damaged:
        return image + " can't be trusted: " + findings.damage.front().text;
    case Verdict::unknown:
        return image + " can't be judged: " + joined(findings.notProven);
    case Verdict::trusted:
        break;
    }
    return image + " can be trusted: " + joined(findings.proven);
}

void printText(const std::string& image, const Findings& findings) {
    std::ostringstream text;
    for (const Damage& each : findings.damage) {
        if (!each.details.empty()) {
            text << each.text << "\n" << each.details << (each.details.ends_with('\n') ? "" : "\n");
        } else if (&each != &findings.damage.front()) {
            text << each.text << "\n";
        }
    }
    for (const std::string& each : findings.notProven) {
        text << "Not proven: " << each << "\n";
    }
    text << conclusionOf(image, findings) << "\n";
    print(text.str());
}

void printDocument(const std::string& image, const ImageCheck& check, double seconds) {
    tools::Json document;
    document["image"] = image;
    document["kind"] = tools::textOrNull(check.kind);
    document["trusted"] = verdictOf(check.findings) == Verdict::trusted;
    document["conclusion"] = conclusionOf(image, check.findings);
    document["proven"] = check.findings.proven;
    document["notProven"] = check.findings.notProven;
    document["damage"] = tools::Json::array();
    for (const Damage& each : check.findings.damage) {
        document["damage"].push_back({{"kind", each.kind}, {"text", each.text}, {"details", each.details}});
    }
    document["comparedBytes"] = check.findings.comparedBytes;
    document["comparedFiles"] = check.findings.comparedFiles;
    document["seconds"] = seconds;
    print(document);
}

int checkImage(CheckOptions options) {
    if (options.comparesFiles && !options.snapshot) {
        throw std::invalid_argument("--files compares with the snapshot that --against names");
    }
    const auto begin = std::chrono::steady_clock::now();
    view::removeStaleViews();
    askSecretOnce(options.image);
    ImageCheck check(options);
    check.run();
    if (options.image.isJson) {
        const double seconds =
            std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
        printDocument(options.image.image, check, seconds);
    } else {
        printText(options.image.image, check.findings);
    }
    const Verdict verdict = verdictOf(check.findings);
    return verdict == Verdict::trusted ? done : verdict == Verdict::damaged ? differs : failed;
}

} // namespace

void declareCheck(CLI::App& app, Run& chosen) {
    auto options = std::make_shared<CheckOptions>();
    CLI::App& command = *app.add_subcommand(
        "check",
        "Prove that an image can be trusted, or say why not: its file system's checker, the head that the "
        "agent has noted, and a snapshot of the volume if there is one");
    declareImage(command, options->image);
    command
        .add_option(
            "--against", options->snapshot,
            "Compare each used block with this snapshot, a device or a file, of which the image was made")
        ->type_name("SNAPSHOT");
    command.add_flag("--files", options->comparesFiles, "Compare each file with the snapshot, too");
    command
        .add_option("--database", options->database,
                    "The agent's database, with the checksum of the image's head; its own place if not given")
        ->type_name("FILE");
    command.callback([options, &chosen] { chosen = [options] { return checkImage(*options); }; });
}

} // namespace restore
