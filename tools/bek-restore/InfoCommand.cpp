#include "Commands.h"
#include "Common.h"
#include "tools/common/Table.h"
#include "tools/common/Text.h"
#include "tools/restore/IscsiUnits.h"
#include "tools/restore/RestorePlan.h"
#include "tools/restore/view/FileSystemFacts.h"
#include "tools/restore/view/ImageView.h"

#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace restore {

namespace {

using tools::Json;
using tools::sizeText;
using tools::textOrNull;

/// All that is shown of one image.
struct ImageInfo {
    std::uint64_t bytes = 0;
    view::ProbeResult whole;
    std::vector<view::ProbeResult> partitions;
    view::FileSystemFacts facts;
    std::optional<RestorePlan> plan; ///< only for a file system
    std::string failure;             ///< why nothing else is known; empty if the image was inspected
};

std::string textOf(view::CleanState cleanState) {
    switch (cleanState) {
    case view::CleanState::clean:
        return "clean";
    case view::CleanState::needsReplay:
        return "the journal has to be replayed, which mounting it does";
    case view::CleanState::dirty:
        return "not cleanly unmounted";
    case view::CleanState::unknown:
        break;
    }
    return "";
}

const char* wordOf(view::CleanState cleanState) {
    switch (cleanState) {
    case view::CleanState::clean:
        return "clean";
    case view::CleanState::needsReplay:
        return "needs replay";
    case view::CleanState::dirty:
        return "dirty";
    case view::CleanState::unknown:
        break;
    }
    return "unknown";
}

ImageInfo inspect(const ImageOptions& options) {
    ImageInfo info;
    {
        OpenedImage opened(options);
        info.bytes = opened.image->size();
    } // closed first: a target may allow only one session
    const view::ImageView view(addressOf(options), options.secret,
                               view::ImageView::Lifetime::endsWithProcess);
    info.whole = view::findWhole(view.device());
    info.partitions = view::findPartitions(view.device());
    if (info.partitions.empty() && !info.whole.kind.empty()) {
        info.facts = view::factsOf(view.device(), info.whole.kind);
    }
    return info;
}

void addPlan(const ImageOptions& options, ImageInfo& info) {
    if (info.partitions.empty() && !info.whole.kind.empty()) {
        OpenedImage opened(options);
        info.plan = makePlan(opened.logger, *opened.image);
    }
}

Json jsonOf(const view::ProbeResult& found) {
    return {{"offset", found.offset},
            {"bytes", found.bytes},
            {"kind", textOrNull(found.kind)},
            {"label", textOrNull(found.label)},
            {"uuid", textOrNull(found.uuid)}};
}

Json jsonOf(const ImageInfo& info) {
    Json document;
    document["bytes"] = info.bytes;
    document["kind"] = textOrNull(info.whole.kind);
    document["label"] = textOrNull(info.whole.label);
    document["uuid"] = textOrNull(info.whole.uuid);
    const bool isKnown = info.plan && !info.plan->takesAllBlocks;
    document["volumeBytes"] = isKnown ? Json(info.plan->volumeBytes) : Json();
    document["usedBytes"] = isKnown ? Json(info.plan->usedBytes) : Json();
    document["features"] = info.facts.features;
    document["lastMounted"] = tools::momentOrNull(info.facts.mounted);
    document["lastWritten"] = tools::momentOrNull(info.facts.written);
    document["journal"] = wordOf(info.facts.cleanState);
    document["note"] = textOrNull(info.failure.empty() ? info.facts.note : info.failure);
    document["partitions"] = Json::array();
    for (const view::ProbeResult& each : info.partitions) {
        document["partitions"].push_back(jsonOf(each));
    }
    return document;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() ? "" : " ") + word;
    }
    return text;
}

std::string momentText(std::optional<std::time_t> moment) {
    return moment ? tools::localText(*moment) : "";
}

std::string usedText(const ImageInfo& info) {
    if (!info.plan) {
        return "";
    }
    return info.plan->takesAllBlocks
               ? "not known: " + info.plan->reason
               : sizeText(info.plan->usedBytes) + " of " + sizeText(info.plan->volumeBytes);
}

void addRow(tools::Table& table, const char* name, const std::string& text) {
    if (!text.empty()) {
        table.add({name, tools::plain(text)});
    }
}

void printImage(const ImageOptions& options, const ImageInfo& info) {
    tools::Table table({{"", false, false}, {"", false, false}});
    addRow(table, "Image", options.image);
    addRow(table, "Bytes", std::to_string(info.bytes) + " (" + sizeText(info.bytes) + ")");
    addRow(table, "Kind", info.whole.kind.empty() ? "nothing that is known" : info.whole.kind);
    addRow(table, "Label", info.whole.label);
    addRow(table, "UUID", info.whole.uuid);
    addRow(table, "Used", usedText(info));
    addRow(table, "Features", joined(info.facts.features));
    addRow(table, "Last mounted", momentText(info.facts.mounted));
    addRow(table, "Last written", momentText(info.facts.written));
    addRow(table, "State", textOf(info.facts.cleanState));
    addRow(table, "Note", info.facts.note);
    std::ostringstream text;
    table.print(text, {});
    print(text.str());
}

void printPlaces(const char* title, const std::vector<std::pair<std::string, view::ProbeResult>>& places) {
    tools::Table table({{title, true, false},
                        {"BYTES", true, false},
                        {"SIZE", true, false},
                        {"KIND", false, false},
                        {"LABEL", false, false},
                        {"UUID", false, false}});
    for (const auto& [place, found] : places) {
        table.add({place, std::to_string(found.bytes), sizeText(found.bytes), tools::plain(found.kind),
                   tools::plain(found.label), found.uuid});
    }
    std::ostringstream text;
    table.print(text, {});
    print(text.str());
}

int showImage(ImageOptions options) {
    askSecretOnce(options);
    ImageInfo info = inspect(options);
    addPlan(options, info);
    if (options.isJson) {
        Json document = jsonOf(info);
        document["image"] = options.image;
        print(document);
    } else if (info.partitions.empty()) {
        printImage(options, info);
    } else {
        std::vector<std::pair<std::string, view::ProbeResult>> places;
        places.reserve(info.partitions.size());
        for (const view::ProbeResult& each : info.partitions) {
            places.emplace_back(std::to_string(each.offset), each);
        }
        printPlaces("OFFSET", places);
    }
    return done;
}

/// If a unit can't be read, its row says so: targets have LUNs that are no disks.
ImageInfo inspectUnit(ImageOptions options, int unit) {
    options.image += "/" + std::to_string(unit);
    try {
        return inspect(options);
    } catch (const std::runtime_error& error) {
        ImageInfo info;
        info.failure = error.what();
        return info;
    }
}

/// Asks for the secret only once, by the address of LUN 0, for all LUNs of the target.
int showTarget(const ImageOptions& target) {
    ImageOptions options = target;
    options.image += "/0";
    askSecretOnce(options);
    const ImageAddress address = addressOf(options);
    const std::string password = address.wantsSecret() ? findSecret(options.secret, "") : "";
    options.image = target.image;
    Json document{{"target", target.image}, {"units", Json::array()}};
    std::vector<std::pair<std::string, view::ProbeResult>> places;
    for (const int unit : findUnits(address, password)) {
        ImageInfo info = inspectUnit(options, unit);
        Json each = jsonOf(info);
        each["lun"] = unit;
        document["units"].push_back(each);
        info.whole.bytes = info.bytes;
        info.whole.kind = !info.failure.empty()     ? "not a disk that can be read"
                          : info.partitions.empty() ? info.whole.kind
                                                    : "a table of partitions";
        places.emplace_back(std::to_string(unit), info.whole);
    }
    options.isJson ? print(document) : printPlaces("LUN", places);
    return done;
}

} // namespace

void declareInfo(CLI::App& app, Run& chosen) {
    auto options = std::make_shared<ImageOptions>();
    CLI::App& command = *app.add_subcommand(
        "info", "What is in an image, or on a whole disk; of iscsi://[USER@]HOST[:PORT]/TARGET, what is on "
                "each of its LUNs");
    declareImage(command, *options);
    command.callback([options, &chosen] {
        chosen = [options] {
            return isWholeTarget(options->image) ? showTarget(*options) : showImage(*options);
        };
    });
}

} // namespace restore
