#include "mapper/Support.h"

#include "CowFile.h"
#include "dm/Mapper.h"
#include "mapper/KernelTargets.h"

#include <algorithm>
#include <array>
#include <exception>
#include <sstream>
#include <string_view>
#include <sys/utsname.h>
#include <utility>

namespace tolvubd {

namespace {

using Reason = std::optional<std::string>;

/// Kernels before Linux 5.12 have crashed with era targets.
Reason reasonOfKernel() {
    constexpr std::pair oldest(5, 12);
    utsname name{};
    std::pair running(0, 0);
    char dot = 0;
    if (::uname(&name) != 0 ||
        !(std::istringstream(&name.release[0]) >> running.first >> dot >> running.second) ||
        running < oldest) {
        return "the kernel is older than Linux 5.12";
    }
    for (const char* target : {"era", "snapshot", "snapshot-origin"}) {
        if (!hasTarget(target)) {
            return std::string("the kernel has no device-mapper target \"") + target + "\"";
        }
    }
    return std::nullopt;
}

/// ext2 and ext3 can reserve the space of a file only by writing zeros, and with data journaling those zeros
/// may be written again after the file was mapped.
Reason reasonOfFileSystem(const std::string& type) {
    constexpr std::array<std::string_view, 2> known = {"ext4", "xfs"};
    if (std::ranges::find(known, type) == known.end()) {
        return "a file system of type " + type + " isn't one whose files can be mapped, ext4 or XFS";
    }
    return std::nullopt;
}

Reason reasonOfTable(const dm::Targets& targets) {
    for (const dm::Target& target : targets) {
        if (target.type != "linear") {
            return "a device-mapper table with the target \"" + target.type + "\" was never tried";
        }
    }
    return targets.empty() ? Reason("the device-mapper device has no table") : std::nullopt;
}

} // namespace

// The cheap checks come first; the check of the kernel may load modules.
std::optional<std::string> unsupportedReason(const Volume& volume) {
    try {
        const auto device = dm::findByNumber(volume.number);
        if (!device) {
            return "it isn't a device-mapper device, such as a logical volume";
        }
        if (device->uuid.empty()) {
            return "its device-mapper device has no UUID by which it could be found again";
        }
        if (auto reason = reasonOfFileSystem(volume.fileSystem)) {
            return reason;
        }
        if (volume.size % cow::unitSize != 0) {
            return "its size isn't a multiple of 4096 bytes";
        }
        if (auto reason = reasonOfTable(dm::liveTable(*device))) {
            return reason;
        }
        return reasonOfKernel();
    } catch (const std::exception& error) {
        return std::string("device-mapper doesn't answer: ") + error.what();
    }
}

} // namespace tolvubd
