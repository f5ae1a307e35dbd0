#include "AgentPaths.h"
#include "Commands.h"
#include "Settings.h"
#include "SilentLogger.h"
#include "VolumeFacts.h"
#include "tools/common/Json.h"
#include "tools/common/Table.h"

#include <ostream>

namespace bekctl {

using tools::Cell;
using tools::Colour;
using tools::Json;
using tools::plain;
using tools::printJson;
using tools::sizeText;
using tools::Table;
using tools::textOrNull;

namespace {

constexpr std::uint64_t bytesPerMiB = 1'048'576;

/// Members that don't apply are null, so that all volumes have the same ones.
Json jsonOf(const VolumeFacts& facts) {
    const agent::info::BackupableVolume& volume = *facts.volume;
    Json document{{"device", volume.getDevice()},
                  {"uuid", volume.getUuid()},
                  {"label", volume.getLabel()},
                  {"mountPoints", volume.getMountPoints()},
                  {"fileSystem", volume.getFileSystem()},
                  {"sizeBytes", volume.getSize()},
                  {"usedBytes", facts.usedBytes ? Json(*facts.usedBytes) : Json()},
                  {"canBeBackedUp", facts.obstacle.empty()},
                  {"obstacle", textOrNull(facts.obstacle)},
                  {"driver", Json()},
                  {"room", Json()}};
    if (facts.device) {
        document["driver"] = {{"state", facts.state()},
                              {"minor", facts.device->minor},
                              {"error", facts.device->error},
                              {"cowFile", facts.device->cow_file}};
    }
    if (facts.space) {
        document["room"] = {{"cowFileBytes", facts.space->cowMebibytes * bytesPerMiB},
                            {"neededBytes", facts.space->needed},
                            {"freeBytes", facts.space->free},
                            {"enough", facts.space->free >= facts.space->needed}};
    }
    return document;
}

Cell stateOf(const VolumeFacts& facts) {
    if (!facts.obstacle.empty()) {
        return {"no", Colour::yellow};
    }
    const std::string state = facts.state();
    if (state.empty()) {
        return "untracked";
    }
    return {state, state.starts_with("error") ? Colour::red : Colour::green};
}

std::vector<std::string> notesOf(const VolumeFacts& facts) {
    const std::string& uuid = facts.volume->getUuid();
    std::vector<std::string> notes{uuid.empty() ? plain(facts.volume->getDevice())
                                                : plain(facts.volume->getDevice() + ", UUID " + uuid)};
    if (!facts.obstacle.empty()) {
        notes.push_back("can't be backed up: " + facts.obstacle);
    }
    return notes;
}

void add(Table& table, const VolumeFacts& facts) {
    const auto size = [](bool isKnown, std::uint64_t bytes) { return isKnown ? sizeText(bytes) : "-"; };
    const SnapshotSpace space = facts.space.value_or(SnapshotSpace());
    const bool isFull = space.free < space.needed;
    table.add({facts.name(),
               plain(facts.volume->getFileSystem()),
               sizeText(facts.volume->getSize()),
               size(facts.usedBytes.has_value(), facts.usedBytes.value_or(0)),
               stateOf(facts),
               size(facts.space.has_value(), space.needed),
               {size(facts.space.has_value(), space.free), isFull ? Colour::red : Colour::none}},
              notesOf(facts));
}

void print(const Output& output, const std::vector<VolumeFacts>& volumes) {
    if (volumes.empty()) {
        output.out << "udisks2 shows no volume of this machine.\n";
        return;
    }
    Table table({{"VOLUME", false, true},
                 {"TYPE"},
                 {"SIZE", true},
                 {"USED", true},
                 {"BACKUP"},
                 {"NEEDED", true},
                 {"FREE", true}});
    for (const VolumeFacts& facts : volumes) {
        add(table, facts);
    }
    table.print(output.out, output.screen);
}

} // namespace

int showVolumes(const Output& output) {
    SilentLogger silent;
    const DriverFacts driver(silent.logger);
    const Settings settings(configPath());
    const std::vector<VolumeFacts> volumes = findVolumes(silent.logger, driver, settings.config());
    if (output.isJson) {
        Json list = Json::array();
        for (const VolumeFacts& facts : volumes) {
            list.push_back(jsonOf(facts));
        }
        printJson(output.out, {{"volumes", list}, {"settingsProblem", textOrNull(settings.problem())}});
    } else {
        print(output, volumes);
    }
    return exitOk;
}

} // namespace bekctl
