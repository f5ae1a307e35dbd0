#include "lvm/LogicalVolume.h"

#include "Failure.h"
#include "FileAccess.h"
#include "lvm/VolumeSearch.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <utility>

namespace tolvubd {
namespace {

/// The device node of a block device, named as in devtmpfs.
std::string nodeOf(dev_t number) {
    const std::string path =
        "/sys/dev/block/" + std::to_string(major(number)) + ":" + std::to_string(minor(number)) + "/uevent";
    const std::string key = "\nDEVNAME=";
    const std::string text = "\n" + readToEnd(path);
    const std::size_t name = text.find(key);
    if (name == std::string::npos) {
        fail(ENODEV, path);
    }
    const std::size_t begin = name + key.size();
    return "/dev/" + text.substr(begin, text.find('\n', begin) - begin);
}

/// Opens the device with O_DIRECT, because LVM's own writes bypass the page cache.
lvm::OpenDevice openDevice(dev_t number) {
    const std::string node = nodeOf(number);
    os::FileDescriptor file = openFile(node, O_RDONLY | O_DIRECT | O_NONBLOCK);
    struct stat status{};
    checked(::fstat(file.get(), &status), "stat " + node);
    if (!S_ISBLK(status.st_mode) || status.st_rdev != number) {
        fail(ENODEV, node);
    }
    return {number, std::move(file)};
}

} // namespace

void append(std::vector<VolumePiece>& pieces, const VolumePiece& next) {
    if (!pieces.empty() && pieces.back().device == next.device &&
        pieces.back().offset + pieces.back().length == next.offset) {
        pieces.back().length += next.length;
    } else {
        pieces.push_back(next);
    }
}

std::optional<std::vector<VolumePiece>> readLogicalVolume(const std::string& uuid,
                                                          const std::vector<dev_t>& devices) {
    std::vector<lvm::OpenDevice> open;
    open.reserve(devices.size());
    for (const dev_t number : devices) {
        open.push_back(openDevice(number));
    }
    return lvm::findLogicalVolume(uuid, open);
}

} // namespace tolvubd
