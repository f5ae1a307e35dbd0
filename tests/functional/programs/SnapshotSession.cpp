#include "app/AgentConfigOptions.h"
#include "common/BaseDirectories.h"
#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotAttributes.h"
#include "core/backup/SnapshotSessionControl.h"
#include "info/CowFileSize.h"
#include "info/VolumeProvider.h"

#include <nlohmann/json.hpp>

#include <iostream>
#include <span>
#include <stdexcept>

namespace {

using agent::core::backup::BackupAttributes;
using agent::core::backup::SnapshotSessionControl;
using agent::core::backup::VolumeAttributes;
using agent::core::backup::VolumeSnapshotInfos;

nlohmann::json describe(const VolumeSnapshotInfos& infos) {
    nlohmann::json result = nlohmann::json::object();
    for (const auto& [uuid, info] : infos) {
        result[uuid] = {{"snapshotPath", info.snapshotPath},
                        {"volumeSize", info.volumeSize},
                        {"excludedFiles", info.excludedFiles},
                        {"incrementalPreserved", info.incrementalPreserved},
                        {"fileName", info.incrementalBitmap.fileName},
                        {"bitmapOffset", info.incrementalBitmap.bitmapOffset},
                        {"bitmapSize", info.incrementalBitmap.bitmapSize},
                        {"bitmapEntries", info.incrementalBitmap.bitmapEntries},
                        {"unchangedBlocks", info.incrementalBitmap.unchangedBlocks}};
    }
    return result;
}

/// The snapshots of a backup's volumes, without the backup.
class Session {
public:
    Session(agent::info::Logger& logger, agent::info::ICowFileSize& cowFileSize,
            const std::vector<std::string>& arguments)
        : control(logger, cowFileSize) {
        agent::info::VolumeProvider provider(logger);
        for (const std::string& argument : arguments) {
            const bool isIncremental = argument.starts_with('+');
            const std::string uuid = argument.substr(isIncremental ? 1 : 0);
            volumes.push_back(provider.getBackupableVolume(uuid));
            if (!volumes.back()) {
                throw std::invalid_argument("there is no volume " + uuid);
            }
            types[uuid] = {
                0, isIncremental ? agent::core::backup::INCREMENTAL : agent::core::backup::FULL, {}};
        }
    }

    nlohmann::json run(const std::string& command) {
        if (command == "start") {
            started = control.startSnapshots(volumes, BackupAttributes(types), snapshotAttributes);
            return describe(started);
        }
        if (command == "check") {
            nlohmann::json result = nlohmann::json::object();
            for (const auto& [uuid, info] : started) {
                result[uuid] = info.check();
            }
            return result;
        }
        if (command == "end success" || command == "end failure") {
            return describe(control.transitionToIncremental(volumes, command == "end success"));
        }
        throw std::invalid_argument("no such command: " + command);
    }

private:
    SnapshotSessionControl control;
    SnapshotSessionControl::Volumes volumes;
    VolumeSnapshotInfos started;
    std::unordered_map<std::string, VolumeAttributes> types;
    agent::core::backup::SnapshotAttributes snapshotAttributes{0, {}, 0};
};

void serve(agent::info::Logger& logger, const std::vector<std::string>& arguments) {
    agent::JSONConfigDataProvider configFile(agent::dir::base() / "config.json");
    const agent::Config config(logger, configFile, agent::app::agentConfigOptions());
    agent::info::CowFileSize cowFileSize(config);
    Session session(logger, cowFileSize, arguments);
    std::cout << "ready" << std::endl;
    for (std::string line; std::getline(std::cin, line);) {
        try {
            std::cout << session.run(line).dump() << std::endl;
        } catch (const std::exception& error) {
            std::cout << nlohmann::json(error.what()).dump() << std::endl;
        }
    }
}

} // namespace

/// Takes the snapshots of a backup and ends them, as the lines of standard input say: "start", "check", "end
/// success" or "end failure". Each argument is the UUID of a volume; a plus sign before it makes its backup
/// incremental. Prints "ready", then one line of JSON for each command: the facts about the snapshots, or the
/// text of the failure. "check" prints, for each snapshot that was started, its error number, or 0. The log
/// goes to standard error; each line begins with its level as a number.
int main(int count, char** values) {
    agent::info::Logger logger([](const std::string& message, int level, agent::info::LogTime /*time*/) {
        std::cerr << level << " " << message << std::flush;
    });
    const std::span<char*> arguments(values, static_cast<std::size_t>(count));
    try {
        serve(logger, {arguments.begin() + 1, arguments.end()});
        return 0;
    } catch (const std::exception& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
