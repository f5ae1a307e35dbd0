#include "DeviceLocation.h"

#include "Failure.h"
#include "dm/Mapper.h"

#include <cerrno>
#include <optional>
#include <set>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <system_error>

namespace tolvubd {

namespace {

std::optional<dev_t> numberOf(const std::string& path) {
    struct stat status{};
    return ::stat(path.c_str(), &status) == 0 ? std::optional(status.st_rdev) : std::nullopt;
}

} // namespace

std::string devicePathOf(const Device& device) {
    const auto found = device.layers ? dm::findByUuid(device.layers->volume) : std::nullopt;
    return found ? "/dev/dm-" + std::to_string(minor(found->number)) : device.blockDevice;
}

bool belongsTo(const Device& device, const Volume& volume) {
    return numberOf(devicePathOf(device)) == volume.number;
}

std::string findCowFile(const Volume& volume, const std::string& cowFile) {
    for (const std::string& mountPoint : volume.mountPoints) {
        struct stat status{};
        std::string path = PathOnVolume{mountPoint, cowFile}.path();
        if (::lstat(path.c_str(), &status) == 0) {
            if (status.st_dev == volume.number) {
                return path;
            }
        } else if (errno != ENOENT) {
            failWithErrno("look at " + path);
        }
    }
    fail(ENOENT, cowFile + " on " + volume.path);
}

std::vector<Unfinished> removalOfCowFile(const Device& device) {
    try {
        Unfinished unfinished{
            device.snapshot, findCowFile(findVolume(devicePathOf(device)), device.cowFile), {}};
        unfinished.layers = device.layers ? device.layers->id : std::string();
        return {unfinished};
    } catch (const std::system_error& error) {
        const std::set<int> outOfReach = {ENODEV, ENOENT, ENXIO, ENOTBLK, EIO};
        if (!outOfReach.contains(error.code().value())) {
            throw;
        }
        return {};
    }
}

} // namespace tolvubd
