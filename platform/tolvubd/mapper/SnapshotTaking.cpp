#include "mapper/SnapshotTaking.h"

#include "FileAccess.h"
#include "HoldGuard.h"
#include "SystemLog.h"
#include "dm/SuspendedDevice.h"
#include "dm/Watcher.h"
#include "mapper/Forecast.h"

#include <chrono>
#include <memory>
#include <string>

namespace tolvubd {

namespace {

constexpr std::uint64_t mebibyte = std::uint64_t{1} << 20;

/// Suspends the volume, makes the new tables live, and resumes it: that is the moment of the snapshot.
void exchangeTables(const SnapshotPlan& plan, const LayerStack& stack, const dm::Device& volume) {
    using std::chrono::milliseconds;
    syncFileSystem(plan.cow.mountPoint); // so that little is left to write while the volume is suspended
    auto suspended = std::make_unique<dm::SuspendedDevice>(
        volume, dm::Visibility::shown, stack.innerDevices(), dm::liveTable(stack.lower()));
    dm::SuspendedDevice& held = *suspended;
    HoldGuard guard(std::move(suspended));
    held.resumeInnerDevices();
    const auto since = held.heldSince();
    guard.release();
    const auto lasted = std::chrono::ceil<milliseconds>(std::chrono::steady_clock::now() - since);
    logLine(Severity::info, plan.volume.path + " was frozen for " + std::to_string(lasted.count()) +
                                " ms to take a snapshot of " + std::to_string(plan.volume.size) + " bytes");
}

void logForecast(const SnapshotPlan& plan, const LayerStack& stack, const Layers& layers) {
    const auto room = stack.room();
    const std::uint64_t need = forecastNeed(layers);
    if (!room || need == 0) {
        return;
    }
    const std::string text = "a snapshot of " + plan.volume.path + " is expected to preserve " +
                             std::to_string(need / mebibyte) + " MiB, and there is room for " +
                             std::to_string(room->size / mebibyte) + " MiB";
    logLine(need > room->size ? Severity::warning : Severity::info, text);
}

} // namespace

void takeSnapshot(const SnapshotPlan& plan, LayerStack& stack, Device& device) {
    Layers& layers = *device.layers;
    const dm::Device volume = LayerStack::volumeOf(layers);
    stack.createSnapshot(layers, LayerStack::Store::isNew);
    exchangeTables(plan, stack, volume);
    layers.snapshotEra = stack.era();
    dm::startWatcher(volume, stack.snapshot());
    logForecast(plan, stack, layers);
}

} // namespace tolvubd
