#include "info/BackupableVolume.h"

#include "common/PosixError.h"

#include <cerrno>
#include <string_view>
#include <sys/statvfs.h>
#include <unistd.h>
#include <utility>

namespace agent::info {

namespace {

constexpr std::string_view deviceDirectory = "/dev/";

std::string nameOf(const std::string& device) {
    return device.size() > deviceDirectory.size() ? device.substr(deviceDirectory.size()) : device;
}

} // namespace

BackupableVolume::BackupableVolume(VolumeDescription description)
    : description(std::move(description)), deviceName(nameOf(this->description.device)) {}

const std::string& BackupableVolume::getUuid() const {
    return description.uuid;
}

const std::string& BackupableVolume::getLabel() const {
    return description.label;
}

const std::string& BackupableVolume::getDevice() const {
    return description.device;
}

const std::string& BackupableVolume::getDeviceName() const {
    return deviceName;
}

const std::string& BackupableVolume::getFileSystem() const {
    return description.fileSystem;
}

const std::string& BackupableVolume::getPartScheme() const {
    return description.partScheme;
}

const std::string& BackupableVolume::getVolumeType() const {
    return description.volumeType;
}

std::string BackupableVolume::getDisplayName() const {
    if (description.mountPoints.empty()) {
        return description.uuid;
    }
    return description.uuid + " (" + description.mountPoints.front() + ")";
}

const std::vector<std::string>& BackupableVolume::getMountPoints() const {
    return description.mountPoints;
}

bool BackupableVolume::exists() const {
    return ::access(description.device.c_str(), F_OK) == 0;
}

bool BackupableVolume::isMounted() const {
    return description.mounted;
}

bool BackupableVolume::isReadOnly() const {
    return description.readOnly;
}

bool BackupableVolume::isRemovable() const {
    return description.removable;
}

bool BackupableVolume::isOSVolume() const {
    return description.osVolume;
}

bool BackupableVolume::isSysVolume() const {
    return description.sysVolume;
}

std::uint64_t BackupableVolume::getSize() const {
    return description.size;
}

std::uint32_t BackupableVolume::getBlockSize() const {
    return description.blockSize;
}

std::uint64_t BackupableVolume::getBlockCount() const {
    return description.blockCount;
}

std::uint32_t BackupableVolume::getSectorSize() const {
    return description.sectorSize;
}

std::uint64_t BackupableVolume::getSectorCount() const {
    return description.sectorCount;
}

std::uint64_t BackupableVolume::getHiddenSectors() const {
    return description.hiddenSectors;
}

std::uint64_t BackupableVolume::getSpaceFree() const {
    if (!description.mounted) {
        return 0;
    }
    const std::string& path = description.mountPoints.front();
    struct statvfs status = {};
    if (::statvfs(path.c_str(), &status) != 0) {
        throw PosixError("statvfs with path " + path + " failed", errno);
    }
    return static_cast<std::uint64_t>(status.f_bfree) * status.f_bsize;
}

} // namespace agent::info
