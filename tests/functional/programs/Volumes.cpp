#include "info/VolumeProvider.h"

#include <nlohmann/json.hpp>

#include <iostream>

namespace {

nlohmann::json describe(const agent::info::BackupableVolume& volume) {
    return {{"device", volume.getDevice()},
            {"deviceName", volume.getDeviceName()},
            {"fileSystem", volume.getFileSystem()},
            {"size", volume.getSize()},
            {"uuid", volume.getUuid()},
            {"label", volume.getLabel()},
            {"displayName", volume.getDisplayName()},
            {"mountPoints", volume.getMountPoints()},
            {"blockSize", volume.getBlockSize()},
            {"blockCount", volume.getBlockCount()},
            {"sectorSize", volume.getSectorSize()},
            {"sectorCount", volume.getSectorCount()},
            {"hiddenSectors", volume.getHiddenSectors()},
            {"partScheme", volume.getPartScheme()},
            {"volumeType", volume.getVolumeType()},
            {"mounted", volume.isMounted()},
            {"readOnly", volume.isReadOnly()},
            {"removable", volume.isRemovable()},
            {"osVolume", volume.isOSVolume()},
            {"sysVolume", volume.isSysVolume()},
            {"exists", volume.exists()}};
}

void list(const agent::info::VolumeProvider& provider) {
    nlohmann::json volumes = nlohmann::json::array();
    for (const auto& volume : provider.getBackupableVolumes()) {
        volumes.push_back(describe(*volume));
    }
    std::cout << volumes.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) << std::endl;
}

void find(const agent::info::VolumeProvider& provider, const std::string& uuid) {
    const auto volume = provider.getBackupableVolume(uuid);
    std::cout << (volume ? describe(*volume) : nlohmann::json()).dump() << std::endl;
}

} // namespace

/// Prints the volumes of this machine as JSON, once for each line of standard input: all volumes for an empty
/// line; for any other line, the volume with that UUID, or null. A failure is printed as a JSON string. The
/// log goes to standard error; each line begins with its level as a number.
int main() {
    agent::info::Logger logger([](const std::string& message, int level, agent::info::LogTime /*time*/) {
        std::cerr << level << " " << message << std::flush;
    });
    agent::info::VolumeProvider provider(logger);
    for (std::string line; std::getline(std::cin, line);) {
        try {
            line.empty() ? list(provider) : find(provider, line);
        } catch (const std::exception& error) {
            std::cout << nlohmann::json(error.what()).dump() << std::endl;
        }
    }
}
