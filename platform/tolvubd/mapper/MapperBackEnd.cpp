#include "mapper/MapperBackEnd.h"

#include "Failure.h"
#include "HiddenNode.h"
#include "Layout.h"
#include "SnapshotNode.h"
#include "SystemLog.h"
#include "TryTo.h"
#include "Uuid.h"
#include "capture/FrozenFileSystem.h"
#include "dm/FilePlaces.h"
#include "dm/Watcher.h"
#include "era/EraMetadata.h"
#include "mapper/ChangeRecord.h"
#include "mapper/Forecast.h"
#include "mapper/FreshGroups.h"
#include "mapper/LvmCheck.h"
#include "mapper/LvmLock.h"
#include "mapper/OwnFiles.h"
#include "mapper/Sealing.h"
#include "mapper/SnapshotTaking.h"
#include "mapper/Targets.h"

#include <algorithm>
#include <fcntl.h>
#include <linux/fs.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace tolvubd {

namespace {

/// The bytes that a file uses on its volume; 0 if there is no file.
std::uint64_t allocatedBytesOf(const std::string& path) {
    constexpr std::uint64_t unit = 512;
    struct stat status{};
    return ::lstat(path.c_str(), &status) == 0 ? static_cast<std::uint64_t>(status.st_blocks) * unit : 0;
}

os::FileDescriptor openSnapshot(const LayerStack& stack) {
    return HiddenNode(stack.snapshot().number).open(O_RDONLY);
}

void showReadOnly(const LayerStack& stack, std::uint32_t minor) {
    const int readOnly = 1;
    checked(::ioctl(openSnapshot(stack).get(), BLKROSET, &readOnly), "make the snapshot read-only");
    showDevice(stack.snapshot().number, minor);
}

void show(const LayerStack& stack, Device& device) {
    if (!stack.room()) {
        fail(ENOSPC, "the store of the snapshot is full already");
    }
    device.layers->usedGroups = groupsInUse(openSnapshot(stack), device.size);
    showReadOnly(stack, device.minor);
}

/// Makes all reads of a snapshot fail, because the data may be inconsistent.
void failSnapshotReads(const LayerStack& stack) {
    const dm::Device snapshot = stack.snapshot();
    const dm::Targets targets = dm::liveTable(snapshot);
    if (targets.size() == 1 && targets[0].type != "error") {
        dm::load(snapshot, {{0, targets[0].length, "error", ""}});
        dm::resume(snapshot, dm::Visibility::hidden);
    }
}

void requireSound(const SnapshotPlan& plan, const LayerStack& stack, const Layers& layers, Mode mode) {
    if (const int error = stack.check(layers, mode); error != 0) {
        fail(error, plan.volume.path + " got another table");
    }
}

void noteCheck(Device& device) {
    const int error = LayerStack(device.layers->id).check(*device.layers, device.mode);
    if (error != 0 && error != device.layers->error) {
        device.layers->error = error;
        logLine(Severity::error,
                device.blockDevice + ": the " + (device.mode == Mode::snapshot ? "snapshot" : "tracking") +
                    " isn't to be trusted any more: " + std::generic_category().message(error));
    }
}

bool isBroken(const Device& device) {
    return device.layers && device.layers->error != 0 && device.layers->error != ENOSPC;
}

/// Gives the volume its own table back, so that programs don't depend on broken layers. While there is a
/// snapshot, its device stays with the target "error" until the snapshot ends.
void detachBrokenLayers(const Device& device) {
    LayerStack stack(device.layers->id);
    if (device.mode == Mode::tracking) {
        stack.removeLayers();
    } else if (stack.isPresent()) {
        failSnapshotReads(stack);
        stack.restoreOwnTable();
    }
}

void reconcileDevice(const Device& device) {
    if (isBroken(device)) {
        detachBrokenLayers(device);
        return;
    }
    LayerStack stack(device.layers->id);
    if (device.mode == Mode::tracking) {
        stack.endSnapshot();
    } else if (device.layers->error != 0) {
        failSnapshotReads(stack);
    }
    renewSeal(stack, device);
}

/// Renews the seal of a device whose layers were put back before its volume was mounted: the mount has
/// changed the fingerprint.
void renewAsleep(const Device& device) {
    const LayerStack stack(device.layers->id);
    if (device.layers->error == 0 && isSealed(stack, device) &&
        stack.check(*device.layers, device.mode) == 0) {
        renewSeal(stack, device);
    }
}

} // namespace

Layers MapperBackEnd::newLayers(const Volume& volume) {
    const auto device = dm::findByNumber(volume.number);
    if (!device) {
        fail(EOPNOTSUPP, volume.path + " isn't a device-mapper device");
    }
    Layers layers;
    layers.id = makeUuid();
    layers.volume = device->uuid;
    layers.blockSectors = eraBlockSectors(volume.size);
    return layers;
}

void MapperBackEnd::requireRoom(const SnapshotPlan& plan, const Device& device) const {
    requireNotFrozen(plan.cow.mountPoint);
    const bool isNew = device.layers->eraFile.empty();
    const std::uint64_t era = isNew ? eraFileSize(plan.volume.size, device.layers->blockSectors) : 0;
    const std::uint64_t reclaimedBytes =
        isNew ? allocatedBytesOf(eraFileOn(plan.cow)) : 0; // used by the file that is replaced
    if (freeSpace(plan.cow.mountPoint) + reclaimedBytes < plan.cowSize + era) {
        fail(ENOSPC, "the CoW file on " + plan.volume.path);
    }
}

void MapperBackEnd::takeFirst(const SnapshotPlan& plan, Device& device) {
    makeCowStore(plan, device);
    makeEraFile(plan, device);
    // From here on, the volume must not be moved.
    const LvmLock lock(LayerStack::volumeOf(*device.layers));
    const dm::Device volume = LayerStack::volumeOf(*device.layers);
    LayerStack stack(device.layers->id);
    stack.createBelow(volume, *device.layers);
    if (!matchesLvmMetadata(device.layers->volume, stack.lower())) {
        fail(EOPNOTSUPP, "LVM says that " + plan.volume.path + " lies elsewhere");
    }
    stack.formatEra(*device.layers);
    stack.loadEraTarget(volume, *device.layers);
    takeSnapshot(plan, stack, device);
    show(stack, device);
}

void MapperBackEnd::takeNext(const SnapshotPlan& plan, const Device& before, const std::string& closed,
                             Device& after) {
    if (before.layers->id != after.layers->id) { // the layers are new, so everything counts as changed
        LayerStack(before.layers->id).removeLayers();
        takeFirst(plan, after);
        writeRecord(closed, before.snapshot, changedUnits({}, after.layers->blockSectors, {}, after.size),
                    after.size);
        return;
    }
    makeCowStore(plan, after);
    LayerStack stack(after.layers->id);
    {
        // Reserving the file may have taken long. The volume may have been moved since, and the store's
        // blocks may belong to another volume.
        const LvmLock lock(LayerStack::volumeOf(*after.layers));
        requireSound(plan, stack, *after.layers, Mode::tracking);
        takeSnapshot(plan, stack, after);
    }
    const std::vector<Extent> fresh = freshGroups(openSnapshot(stack), after.size, before.layers->usedGroups);
    const std::vector<bool> written = stack.writtenSince(before.layers->snapshotEra);
    requireSound(plan, stack, *after.layers, after.mode);
    writeRecord(closed, before.snapshot, changedUnits(written, after.layers->blockSectors, fresh, after.size),
                after.size);
    show(stack, after);
}

/// If the store was too small, only the backup that read from the snapshot fails; tracking goes on.
void MapperBackEnd::noteEnd(Device& device) {
    Layers& layers = *device.layers;
    if (isBroken(device)) {
        fail(layers.error, "the snapshot of " + device.blockDevice);
    }
    if (layers.error == ENOSPC) {
        recordPreserved(layers, bytesIn(layers.cowStore));
    } else if (const auto room = LayerStack(layers.id).room()) {
        recordPreserved(layers, room->used);
    }
    layers.error = 0;
}

void MapperBackEnd::release(const Device& device) {
    LayerStack(device.layers->id).removeLayers();
}

void MapperBackEnd::reload(const Volume& volume, Device& device) {
    LayerStack stack(device.layers->id);
    if (stack.check(*device.layers, device.mode) != 0 || !isSealed(stack, device)) {
        fail(ENOENT, "the layers of " + volume.path + " were not put back before it was mounted");
    }
    if (device.mode == Mode::snapshot) {
        dm::startWatcher(LayerStack::volumeOf(*device.layers), stack.snapshot());
        showReadOnly(stack, device.minor);
    }
}

void MapperBackEnd::examine(Table& table) {
    for (Device& device : table.devices) {
        if (owns(device) && !isBroken(device)) {
            noteCheck(device);
        }
    }
    for (Device& device : table.asleep) { // layers that were put back may have been bypassed since
        if (owns(device) && !isBroken(device)) {
            tryTo("look at " + device.blockDevice, [&] {
                if (isSealed(LayerStack(device.layers->id), device)) {
                    noteCheck(device);
                }
            });
        }
    }
}

/// Each step is tried on its own, so that a broken volume doesn't keep the others from being reconciled.
void MapperBackEnd::reconcile(const Table& table) {
    for (const Unfinished& unfinished : table.unfinished) {
        if (!unfinished.layers.empty()) {
            tryTo("let a volume go on", [&] { LayerStack(unfinished.layers).resumeIfSuspended(); });
        }
    }
    std::set<std::string> known;
    for (const Device& device : table.asleep) {
        if (owns(device)) {
            known.insert(device.layers->id);
            tryTo("seal " + device.blockDevice + " anew", [&] { renewAsleep(device); });
        }
    }
    for (const Device& device : table.devices) {
        if (owns(device)) {
            known.insert(device.layers->id);
            tryTo("bring the layers of " + device.blockDevice + " to their state",
                  [&] { reconcileDevice(device); });
        }
    }
    for (const std::string& id : LayerStack::present()) {
        if (!known.contains(id)) {
            tryTo("take the layers " + id + " apart", [&] { LayerStack(id).removeLayers(); });
        }
    }
    tryTo("note what is to be put back at the next start", [&] { updateBootRecord(table); });
}

} // namespace tolvubd
