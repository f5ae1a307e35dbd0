#include "boot/Closing.h"

#include "Failure.h"
#include "FileAccess.h"
#include "Layout.h"
#include "boot/BootLog.h"
#include "boot/BootTurn.h"
#include "boot/TrackedVolume.h"
#include "mapper/LayerStack.h"
#include "seal/BootRecord.h"

#include <exception>
#include <optional>

namespace tolvubd {

namespace {

/// Closes a volume whose layers are sound; any other is none that could be trusted later.
void closeVolume(const BootRecord::Volume& record) {
    const BootTurn turn;
    const LayerStack stack(record.id);
    const std::optional<dm::Device> top = stack.top();
    if (!top || mountedAs(*top) == Mounted::forWriting || isOpenBesides(*top)) {
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
    seal->start = thisStart();
    seal->fingerprint = now;
    volume.write(*seal);
    report(Severity::info, top->name + " is closed, and tracked on after the next start");
}

} // namespace

void closeVolumes() {
    for (const BootRecord::Volume& record : readBootRecord(layout::bootRecord).volumes) {
        try {
            closeVolume(record);
        } catch (const std::exception& error) {
            report(Severity::warning, record.volume + " can't be closed: " + error.what());
        }
    }
}

} // namespace tolvubd
