#include "VolumeFacts.h"

#include "core/backup/VolumeReader.h"
#include "core/fs/UsedBlockBitmapChunkProviderFactory.h"
#include "info/CowFileSize.h"
#include "info/CowFormat.h"
#include "info/DriverState.h"
#include "tools/common/Text.h"

#include <algorithm>
#include <exception>
#include <sys/stat.h>
#include <sys/statvfs.h>

namespace bekctl {

using tools::plain;

namespace {

using agent::info::BackupableVolume;
using agent::info::DriverDeviceInfo;
using agent::info::Logger;

constexpr std::uint64_t bytesPerMiB = 1'048'576;
constexpr std::uint64_t bytesPerBlock = 512; // unit of st_blocks
constexpr const char* swapMountPoint = "<swap>";

/// Reads the file system's own structures, as a backup does.
bool isFileSystemKnown(Logger& logger, const BackupableVolume& volume) {
    agent::core::backup::VolumeReader reader(logger, volume.getDevice());
    if (volume.getSectorSize() == 0 || !reader.open()) {
        return false;
    }
    return agent::core::fs::UsedBlockBitmapChunkProviderFactory(logger, volume.getSectorSize(), &reader)
               .create() != nullptr;
}

std::string findObstacle(Logger& logger, const BackupableVolume& volume) {
    const std::vector<std::string>& mountPoints = volume.getMountPoints();
    if (!mountPoints.empty() && mountPoints.front() == swapMountPoint) {
        return "swap space";
    }
    if (!volume.exists()) {
        return "its device is gone";
    }
    if (!volume.isMounted()) {
        return "not mounted";
    }
    if (volume.isReadOnly()) {
        return "mounted read-only, so there is no place for the snapshot's files";
    }
    return isFileSystemKnown(logger, volume) ? "" : "a file system of no kind that the agent knows";
}

std::optional<std::uint64_t> usedBytesOf(const BackupableVolume& volume) {
    struct ::statvfs status{};
    if (!volume.isMounted() || ::statvfs(volume.getMountPoints().front().c_str(), &status) != 0) {
        return std::nullopt;
    }
    return static_cast<std::uint64_t>(status.f_blocks - std::min(status.f_bfree, status.f_blocks)) *
           status.f_frsize;
}

std::uint64_t sizeOnDisk(const std::string& path) {
    struct ::stat found{};
    return ::lstat(path.c_str(), &found) == 0 && S_ISREG(found.st_mode)
               ? static_cast<std::uint64_t>(found.st_blocks) * bytesPerBlock
               : 0;
}

/// Follows the rule by which a backup decides whether the volume is full.
SnapshotSpace findSnapshotSpace(Logger& logger, const BackupableVolume& volume,
                                const std::optional<DriverDeviceInfo>& device, const agent::IConfig& config) {
    SnapshotSpace space;
    space.cowMebibytes = agent::info::CowFileSize(config).getCowFileSizeMiB(
        logger, volume.getUuid(), volume.getSize(), volume.getFileSystem());
    space.needed = space.cowMebibytes * bytesPerMiB + agent::info::cow::entrySize +
                   agent::info::cow::entrySize * (volume.getSize() / agent::info::cow::blockSize);
    space.free = volume.getSpaceFree();
    space.currentCowBytes = device ? sizeOnDisk(volume.getMountPoints().front() + device->cow_file) : 0;
    return space;
}

VolumeFacts describe(Logger& logger, std::shared_ptr<BackupableVolume> volume, const DriverFacts& driver,
                     const agent::IConfig& config) {
    VolumeFacts facts;
    facts.device = driver.deviceOf(*volume);
    facts.usedBytes = usedBytesOf(*volume);
    try {
        facts.obstacle = findObstacle(logger, *volume);
        if (facts.obstacle.empty()) {
            facts.space = findSnapshotSpace(logger, *volume, facts.device, config);
        }
    } catch (const std::exception& error) {
        facts.obstacle = plain(error.what());
    }
    facts.volume = std::move(volume);
    return facts;
}

} // namespace

bool VolumeFacts::isTracked() const {
    return device && device->state == agent::info::driver_state::tracking && device->error == 0;
}

std::string VolumeFacts::state() const {
    if (!device) {
        return "";
    }
    if (device->error != 0) {
        return "error " + std::to_string(device->error);
    }
    if (device->state == agent::info::driver_state::activeSnapshot) {
        return "snapshot";
    }
    return isTracked() ? "tracked" : "state " + std::to_string(device->state);
}

std::string VolumeFacts::name() const {
    return plain(volume->isMounted() ? volume->getMountPoints().front() : volume->getDevice());
}

std::vector<VolumeFacts> findVolumes(Logger& logger, const DriverFacts& driver,
                                     const agent::IConfig& config) {
    std::vector<VolumeFacts> found;
    for (std::shared_ptr<BackupableVolume>& volume :
         agent::info::VolumeProvider(logger).getBackupableVolumes()) {
        found.push_back(describe(logger, std::move(volume), driver, config));
    }
    std::ranges::sort(found, {}, [](const VolumeFacts& facts) { return facts.volume->getDevice(); });
    return found;
}

} // namespace bekctl
