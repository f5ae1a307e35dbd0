#include "boot/Reinsertion.h"

#include "Driver.h"
#include "Failure.h"
#include "HoldGuard.h"
#include "Layout.h"
#include "boot/BootLock.h"
#include "boot/BootLog.h"
#include "boot/TrackedVolume.h"
#include "dm/SuspendedDevice.h"
#include "mapper/LayerStack.h"
#include "seal/BootHistory.h"
#include "seal/BootRecord.h"
#include "seal/Trust.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <memory>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

namespace tolvubd {

namespace {

bool isLinear(const dm::Targets& targets) {
    return !targets.empty() &&
           std::ranges::all_of(targets, [](const dm::Target& target) { return target.type == "linear"; });
}

bool isUnused(const dm::Device& device) {
    return mountedAs(device) == Mounted::no && !hasOtherUsers(device);
}

/// Puts back the layers of one volume that has none and isn't in use.
class Reinsertion {
public:
    Reinsertion(const BootRecord::Volume& record, const dm::Device& device, Stage stage)
        : record(record), device(device), stage(stage), volume(record, device) {}

    void run() const {
        const std::optional<Seal> seal = volume.seal();
        if (seal && seal->end == Seal::End::broken) {
            return; // logged when it was given up
        }
        const std::optional<Fingerprint> now = volume.fingerprint();
        if (const auto reason = reasonAgainst(seal, now)) {
            giveUp(*reason);
        } else {
            insert(*seal, now);
        }
    }

private:
    [[nodiscard]] std::optional<std::string> reasonAgainst(const std::optional<Seal>& seal,
                                                           const std::optional<Fingerprint>& now) const {
        if (!seal) {
            return "there is no seal where it was";
        }
        if (seal->device.layers->volume != record.volume || seal->device.layers->eraFile != record.eraFile ||
            seal->device.size != record.size) {
            return "its seal is that of another volume";
        }
        if (dm::sizeOf(dm::liveTable(device)) * dm::sector != record.size) {
            return "its size has changed";
        }
        if (seal->end == Seal::End::open && volume.wasEraShutDown()) {
            return "it had lost its layers before the machine stopped"; // even if only a moment before
        }
        return reasonForDoubt(*seal, now, previousBootId(layout::bootHistory));
    }

    /// Only logs, and leaves the seal alone: its blocks may belong to another file by now. The volume stays
    /// in doubt, because every mount takes its fingerprint further away from the seal's.
    void giveUp(const std::string& reason) const {
        if (stage == Stage::afterRoot) {
            report(Severity::warning, device.name + ": the next backup compares all of it: " + reason);
        }
    }

    /// Marks the seal as broken until the layers are in place and have been checked: if that fails, the
    /// volume may be written without them.
    void insert(const Seal& seal, const std::optional<Fingerprint>& now) const {
        write(volume, seal, Seal::End::broken, now);
        LayerStack stack(record.id);
        try {
            build(stack, seal.device);
            if (const int error = stack.check(*seal.device.layers, seal.device.mode); error != 0) {
                fail(error, "the layers");
            }
            write(TrackedVolume(record, stack.lower()), seal, Seal::End::open, now);
        } catch (...) {
            stack.removeLayers();
            throw;
        }
        report(Severity::info, device.name + ": what changes on it goes on to be tracked");
    }

    void build(LayerStack& stack, const Device& sealed) const {
        const bool hasSnapshot = sealed.mode == Mode::snapshot;
        stack.createBelow(device, *sealed.layers);
        if (hasSnapshot) {
            stack.createSnapshot(*sealed.layers, LayerStack::Store::isKept);
        }
        stack.loadEraTarget(device, *sealed.layers);
        auto suspended = std::make_unique<dm::SuspendedDevice>(
            device, dm::Visibility::shown, hasSnapshot ? stack.innerDevices() : std::vector<dm::Device>{},
            dm::liveTable(stack.lower()));
        dm::SuspendedDevice& held = *suspended;
        HoldGuard guard(std::move(suspended));
        held.resumeInnerDevices();
        guard.release();
    }

    /// `where` has LVM's own table: it is the volume at first, and later its lowest layer.
    static void write(const TrackedVolume& where, Seal seal, Seal::End end,
                      const std::optional<Fingerprint>& now) {
        seal.end = end;
        seal.bootId = currentBootId();
        seal.fingerprint = now;
        where.write(seal);
    }

    const BootRecord::Volume& record;
    const dm::Device& device;
    Stage stage;
    TrackedVolume volume;
};

/// Returns false when it is too late, because the volume is in use without its layers.
bool tryReinsert(const BootRecord::Volume& record, const dm::Device& device, Stage stage) {
    const BootLock lock;
    if (dm::stateOf(device).isSuspended || !isLinear(dm::liveTable(device))) {
        return true;
    }
    if (!isUnused(device)) {
        return false;
    }
    Reinsertion(record, device, stage).run();
    return true;
}

/// A volume in use has been given its own table back. The driver must notice that at once, because the
/// machine may stop before the next call of the driver. Waits while another session holds the lock: it may be
/// the one that has given the table back.
void runDriverCheck() {
    constexpr std::chrono::seconds patience{10};
    constexpr std::chrono::milliseconds pause{100};
    const auto deadline = std::chrono::steady_clock::now() + patience;
    while (true) {
        try {
            const Driver session(Busy::fail);
            return;
        } catch (const std::system_error& error) {
            if (error.code().value() != EWOULDBLOCK || std::chrono::steady_clock::now() >= deadline) {
                throw;
            }
        }
        std::this_thread::sleep_for(pause);
    }
}

void reinsertDevice(const BootRecord& boot, const dm::Device& device, Stage stage) noexcept {
    try {
        const auto record = std::ranges::find(boot.volumes, device.uuid, &BootRecord::Volume::volume);
        if (record == boot.volumes.end() || !isLinear(dm::liveTable(device))) {
            return; // the events of an untracked device must not wait for the lock
        }
        if (!tryReinsert(*record, device, stage) && stage == Stage::afterRoot) {
            runDriverCheck();
        }
    } catch (const std::exception& error) {
        report(Severity::error, device.name + ": the next backup compares all of it: " + error.what());
    }
}

} // namespace

void reinsert(const std::string& node, Stage stage) {
    struct stat status{};
    checked(::stat(node.c_str(), &status), "look at " + node);
    const BootRecord boot = readBootRecord(layout::bootRecord);
    if (const auto device = dm::findByNumber(status.st_rdev); device && S_ISBLK(status.st_mode)) {
        reinsertDevice(boot, *device, stage);
    }
}

void reinsertAll(Stage stage) {
    const BootRecord boot = readBootRecord(layout::bootRecord);
    for (const BootRecord::Volume& volume : boot.volumes) {
        if (const auto device = dm::findByUuid(volume.volume)) {
            reinsertDevice(boot, *device, stage);
        }
    }
}

} // namespace tolvubd
