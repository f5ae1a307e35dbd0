#include "boot/Closing.h"

#include "FileAccess.h"
#include "Layout.h"
#include "Volume.h"
#include "boot/BootLock.h"
#include "boot/BootLog.h"
#include "boot/TrackedVolume.h"
#include "mapper/LayerStack.h"
#include "seal/BootRecord.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace tolvubd {

namespace {

/// Seals a volume whose layers are sound. Skips any other volume: it can't be trusted after the start anyway.
void closeVolume(const BootRecord::Volume& record) {
    const BootLock lock;
    const LayerStack stack(record.id);
    const std::optional<dm::Device> eraDevice = stack.eraDevice();
    if (!eraDevice || mountedAs(*eraDevice) == Mounted::forWriting || hasOtherUsers(*eraDevice)) {
        return;
    }
    const TrackedVolume volume(record, stack.lower());
    std::optional<Seal> seal = volume.seal();
    if (!seal || seal->end != Seal::End::open || stack.check(*seal->device.layers, seal->device.mode) != 0) {
        return;
    }
    const std::optional<Fingerprint> now = volume.fingerprint();
    if (!now || !now->isClean) {
        return;
    }
    seal->end = Seal::End::clean;
    seal->bootId = currentBootId();
    seal->fingerprint = now;
    volume.write(*seal);
    report(Severity::info, eraDevice->name + " is closed, and tracked on after the next start");
}

void tryToClose(const BootRecord::Volume& record) noexcept {
    try {
        closeVolume(record);
    } catch (const std::exception& error) {
        report(Severity::warning, record.volume + " can't be closed: " + error.what());
    }
}

bool isOfTheSystem(const std::vector<std::string>& mountPoints) {
    return std::ranges::any_of(mountPoints,
                               [](const std::string& path) { return path == "/" || path == "/usr"; });
}

/// Whether the volume is still mounted writable, but is going to be unmounted.
bool awaitsUnmount(const BootRecord::Volume& record) {
    const auto device = dm::findByUuid(record.volume);
    if (!device) {
        return false;
    }
    const std::string mounts = readToEnd("/proc/self/mountinfo");
    return isWritableIn(mounts, device->number) && !isOfTheSystem(mountPointsIn(mounts, device->number));
}

} // namespace

void closeVolumes(std::chrono::seconds patience) {
    constexpr std::chrono::milliseconds pause{100};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    std::vector<BootRecord::Volume> open = readBootRecord(layout::bootRecord).volumes;
    while (true) {
        const bool isDeadlinePast = std::chrono::steady_clock::now() >= deadline;
        const auto ready = std::ranges::partition(
            open, [&](const BootRecord::Volume& record) { return !isDeadlinePast && awaitsUnmount(record); });
        std::ranges::for_each(ready, tryToClose);
        open.erase(ready.begin(), ready.end());
        if (open.empty()) {
            return;
        }
        std::this_thread::sleep_for(pause);
    }
}

} // namespace tolvubd
