#include "boot/Adoption.h"

#include "Failure.h"
#include "FileAccess.h"
#include "Layout.h"
#include "Volume.h"
#include "boot/BootLog.h"
#include "dm/Mapper.h"
#include "seal/BootRecord.h"

#include <algorithm>
#include <exception>
#include <fcntl.h>
#include <filesystem>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace tolvubd {

namespace {

constexpr const char* linksByPartition = "/dev/disk/by-partuuid";
constexpr const char* hook = "/usr/share/initramfs-tools/hooks/tolvubd";
constexpr const char* adoptedName = "adopted-root";
constexpr const char* adoptedPrefix = "ADOPTED-";

dev_t numberOf(const std::string& node) {
    struct stat status{};
    checked(::stat(node.c_str(), &status), "look at " + node);
    if (!S_ISBLK(status.st_mode)) {
        fail(ENOTBLK, node);
    }
    return status.st_rdev;
}

std::optional<std::string> partitionUuidOf(dev_t number) {
    std::error_code none;
    for (const auto& link : std::filesystem::directory_iterator(linksByPartition, none)) {
        struct stat status{};
        if (::stat(link.path().c_str(), &status) == 0 && status.st_rdev == number) {
            return link.path().filename();
        }
    }
    return std::nullopt;
}

std::uint64_t sizeOf(const std::string& node) {
    const os::FileDescriptor device = openFile(node, O_RDONLY);
    std::uint64_t size = 0;
    checked(::ioctl(device.get(), BLKGETSIZE64, &size), "size of " + node);
    return size;
}

dm::Device makeLinear(const BootRecord::Adopted& adopted, const std::string& partition) {
    const std::string uuid = adoptedPrefix + adopted.partition;
    if (const auto present = dm::findByUuid(uuid)) {
        return *present;
    }
    const dev_t number = numberOf(partition);
    const std::string below = std::to_string(major(number)) + ":" + std::to_string(minor(number));
    const std::uint64_t size = sizeOf(partition);
    const dm::Device device = dm::create(adopted.name, uuid);
    try {
        dm::load(device, {{0, size / dm::sector, "linear", below + " 0"}});
        dm::resume(device, dm::Visibility::shown);
    } catch (...) {
        dm::remove(device);
        throw;
    }
    return device;
}

} // namespace

void adopt(const std::string& partition) {
    const Volume volume = findVolume(partition);
    if (std::ranges::find(volume.mountPoints, "/") == volume.mountPoints.end()) {
        fail(EOPNOTSUPP, partition + " isn't that of the root file system; unmount it, and mount it from a "
                                     "linear device-mapper device that lies on it");
    }
    if (dm::findByNumber(volume.number)) {
        fail(EEXIST, partition + " is on device-mapper, and needn't be adopted");
    }
    const auto uuid = partitionUuidOf(volume.number);
    if (!uuid) {
        fail(ENODEV, partition + " has no PARTUUID by which it could be found at the next start");
    }
    if (!std::filesystem::exists(hook)) {
        fail(ENOENT, std::string(hook) + ", by which it would come into the initramfs");
    }
    BootRecord record = readBootRecord(layout::bootRecord);
    record.adopted = {{*uuid, adoptedName}};
    writeBootRecord(layout::bootRecord, record);
}

void undoAdoption() {
    BootRecord record = readBootRecord(layout::bootRecord);
    record.adopted.clear();
    writeBootRecord(layout::bootRecord, record);
}

std::optional<std::string> createAdoptedDevice(const std::string& root) noexcept {
    try {
        const auto uuid = partitionUuidOf(numberOf(root));
        const BootRecord record = readBootRecord(layout::bootRecord);
        const auto adopted = std::ranges::find(record.adopted, uuid, &BootRecord::Adopted::partition);
        if (!uuid || adopted == record.adopted.end()) {
            return std::nullopt;
        }
        return "/dev/dm-" + std::to_string(minor(makeLinear(*adopted, root).number));
    } catch (const std::exception& error) {
        report(Severity::error, "the root file system stays where it is: " + std::string(error.what()));
        return std::nullopt;
    }
}

} // namespace tolvubd
