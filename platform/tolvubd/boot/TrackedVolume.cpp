#include "boot/TrackedVolume.h"

#include "Failure.h"
#include "FileAccess.h"
#include "Volume.h"
#include "era/EraMetadata.h"
#include "mapper/LvmCheck.h"
#include "seal/DirectDevice.h"

#include <chrono>
#include <fcntl.h>
#include <span>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>
#include <utility>

namespace tolvubd {

namespace {

/// Opens the kernel's own node, because udev may not have made another one yet.
os::FileDescriptor openMapped(const dm::Device& device) {
    const std::string node = "/dev/dm-" + std::to_string(minor(device.number));
    os::FileDescriptor file = openDirect(node, O_RDWR);
    struct stat status{};
    checked(::fstat(file.get(), &status), "look at " + node);
    if (!S_ISBLK(status.st_mode) || status.st_rdev != device.number) {
        fail(ENODEV, node);
    }
    return file;
}

} // namespace

TrackedVolume::TrackedVolume(BootRecord::Volume record, const dm::Device& device)
    : record(std::move(record)), device(device), file(openMapped(device)) {}

std::optional<Seal> TrackedVolume::seal() const {
    return readSeal(file, record.eraFile, record.id);
}

std::optional<Fingerprint> TrackedVolume::fingerprint() const {
    return readFingerprint(file, record.size);
}

bool TrackedVolume::wasEraShutDown() const {
    os::AlignedBuffer block(era::blockSize, era::blockSize);
    if (!readPlaces(file, record.eraFile, sealSize, block)) {
        fail(EBADMSG, "the volume ends before the era metadata");
    }
    return tolvubd::wasEraShutDown(std::span<const std::byte, era::blockSize>(block.data(), era::blockSize));
}

void TrackedVolume::write(const Seal& seal) const {
    if (!matchesLvmMetadata(record.volume, device)) {
        fail(ESTALE, "LVM says that " + record.volume + " lies elsewhere");
    }
    writeSeal(file, record.eraFile, seal);
}

Mounted mountedAs(const dm::Device& device) {
    const std::string mounts = readToEnd("/proc/self/mountinfo");
    if (mountPointsIn(mounts, device.number).empty()) {
        return Mounted::no;
    }
    return isWritableIn(mounts, device.number) ? Mounted::forWriting : Mounted::readOnly;
}

bool hasOtherUsers(const dm::Device& device) {
    constexpr int attempts = 10;
    constexpr std::chrono::milliseconds pause{50};
    const std::uint32_t expected = mountedAs(device) == Mounted::no ? 0 : 1;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        if (dm::stateOf(device).openCount <= expected) {
            return false;
        }
        std::this_thread::sleep_for(pause);
    }
    return true;
}

} // namespace tolvubd
