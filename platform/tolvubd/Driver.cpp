#include "Driver.h"

#include "CowFile.h"
#include "DeviceLocation.h"
#include "Failure.h"
#include "Layout.h"
#include "Recovery.h"
#include "SnapshotNode.h"
#include "Status.h"
#include "SystemLog.h"
#include "TryTo.h"
#include "Uuid.h"
#include "capture/FrozenFileSystem.h"
#include "dm/FilePlaces.h"
#include "era/EraMetadata.h"
#include "mapper/OwnFiles.h"
#include "mapper/Support.h"
#include "seal/BootHistory.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <limits>

namespace tolvubd {

namespace {

std::uint64_t cowBytes(std::uint64_t mebibytes, const Volume& volume) {
    constexpr unsigned mebibyte = 20;
    if (mebibytes > (std::uint64_t{std::numeric_limits<std::int64_t>::max()} >> mebibyte)) {
        fail(EFBIG, "the CoW file");
    }
    if (mebibytes << mebibyte < cow::tableEnd(volume.size)) {
        fail(EINVAL, "the CoW file is too small for the table of " + volume.path);
    }
    return mebibytes << mebibyte;
}

void requireSameSize(const Device& device, const Volume& volume) {
    if (device.size != volume.size) {
        fail(ESTALE, volume.path + " has another size now");
    }
}

/// Checks the file and closes it at once. If it stayed open while the volume is held, a process that is
/// killed could end only after the release.
void requireTable(const Device& device, const std::string& cowFile) {
    static_cast<void>(CowTable(cowFile, device.snapshot, device.size));
}

/// Removes the device's entries from `unfinished`, because the files that they announced exist now.
void clearUnfinished(Table& table, const Device& device) {
    std::erase_if(table.unfinished,
                  [&](const Unfinished& unfinished) { return unfinished.snapshot == device.snapshot; });
}

std::vector<Device>::iterator find(std::vector<Device>& devices, std::uint32_t minor) {
    return std::ranges::find(devices, minor, &Device::minor);
}

} // namespace

Driver::Driver(Busy busy) : store(busy), table(store.load()) {
    if (!isLive(table)) {
        startSession();
    }
    const Table reconciled = reconcileMachine(table, Held::maybe, backEnds());
    if (reconciled != table) {
        store.write(reconciled);
        table = reconciled;
    }
    publish(table);
}

/// For the first use after the machine was restarted: the devices are gone, but their captures and layers can
/// be reloaded.
void Driver::startSession() {
    Table fresh;
    fresh.session = makeUuid();
    fresh.unfinished = table.unfinished;
    fresh.asleep = table.asleep;
    fresh.asleep.insert(fresh.asleep.end(), table.devices.begin(), table.devices.end());
    if (fresh.asleep.size() > mostAsleep) {
        fresh.asleep.erase(fresh.asleep.begin(), fresh.asleep.end() - mostAsleep);
    }
    store.write(fresh);
    recordBoot(layout::bootHistory);
    markLive(fresh);
    table = fresh;
}

void Driver::commit(const Table& next) {
    store.write(next);
    try {
        publish(next);
    } catch (...) {
        store.restorePrevious();
        throw;
    }
    table = next;
}

void Driver::replace(const Device& device) {
    Table next = table;
    *find(next.devices, device.minor) = device;
    clearUnfinished(next, device);
    commit(next);
}

/// Leftovers that can't be removed now are left to the next session.
void Driver::reconcile() {
    const Table reconciled = reconcileMachine(table, Held::no, backEnds());
    try {
        if (reconciled != table) {
            commit(reconciled);
        }
    } catch (const std::exception& error) {
        logLine(Severity::warning, std::string("can't write the state: ") + error.what());
    }
}

template <class Work>
void Driver::reconcileOnFailure(const Work& work) {
    try {
        work();
    } catch (...) {
        reconcile();
        throw;
    }
}

IBackEnd& Driver::backEndOf(const Device& device) {
    for (IBackEnd* backEnd : backEnds()) {
        if (backEnd->owns(device)) {
            return *backEnd;
        }
    }
    fail(EOPNOTSUPP, "device " + std::to_string(device.minor));
}

std::vector<IBackEnd*> Driver::backEnds() {
    return {&capture, &mapper};
}

const Device& Driver::require(std::uint32_t minor, Mode mode) const {
    const Device* device = findDevice(table, minor);
    if (device == nullptr) {
        fail(ENOENT, "device " + std::to_string(minor));
    }
    if (device->mode != mode) {
        fail(EINVAL, "device " + std::to_string(minor) + " is in another state");
    }
    return *device;
}

void Driver::requireFree(std::uint32_t minor) const {
    if (minor > highestMinor) {
        fail(EINVAL, "minor " + std::to_string(minor));
    }
    if (findDevice(table, minor) != nullptr) {
        fail(EBUSY, "minor " + std::to_string(minor));
    }
}

void Driver::requireUntracked(const Volume& volume) const {
    if (std::ranges::any_of(table.devices, [&](const Device& device) { return belongsTo(device, volume); })) {
        fail(EBUSY, volume.path + " has a device already");
    }
}

void Driver::recordUnfinished(const SnapshotPlan& plan, const Device& device) {
    Table next = table;
    Unfinished unfinished{device.snapshot, plan.cow.path(), {}, {}};
    if (device.layers) {
        unfinished.layers = device.layers->id;
    } else if (plan.volume.servers.empty()) {
        unfinished.mountPoint = plan.cow.mountPoint;
    } else {
        unfinished.server = plan.volume.servers.front();
    }
    next.unfinished.push_back(unfinished);
    commit(next);
}

void Driver::setupSnapshot(std::uint32_t minor, const std::string& blockDevice, const std::string& cowPath,
                           std::uint64_t cowMebibytes, std::uint64_t cacheSize) {
    requireFree(minor);
    const Volume volume = findVolume(blockDevice);
    requireUntracked(volume);
    const SnapshotPlan plan{volume, locate(volume, cowPath), cowBytes(cowMebibytes, volume)};
    Device device{minor,      Mode::snapshot, blockDevice, plan.cow.relative,
                  makeUuid(), volume.size,    cacheSize,   {}};
    if (volume.servers.empty() && hasStaleFiles(plan.cow)) { // the kernel never freezes a FUSE file system
        requireNotFrozen(plan.cow.mountPoint);
    }
    forgetAsleepLayers(volume, plan.cow);
    if (!takeFirstByMapper(plan, device)) {
        tryTo("release what layers have left on " + volume.path, [&] { unlockStaleFiles(plan.cow); });
        takeFirst(capture, plan, device);
        logLine(Severity::info, volume.path + " was captured whole: " + device.whyCaptured);
    }
}

/// Layers that haven't been reloaded since the machine was restarted would block new ones. So would their CoW
/// file, which needn't have the name of the new one.
void Driver::forgetAsleepLayers(const Volume& volume, const PathOnVolume& cow) {
    const std::vector<Device> before = table.asleep;
    Table next = table;
    std::erase_if(next.asleep,
                  [&](const Device& device) { return device.layers && belongsTo(device, volume); });
    if (next == table) {
        return;
    }
    commit(next);
    reconcile();
    for (const Device& device : before) {
        if (device.layers && belongsTo(device, volume)) {
            const std::string path = PathOnVolume{cow.mountPoint, device.cowFile}.path();
            tryTo("remove " + path, [&] { removeLockedCowFile(path, device.snapshot); });
        }
    }
}

/// The CoW file of a tracking that was lost may still be locked at the path of the new one, and uses its
/// space.
void Driver::removeLockedPredecessor(const SnapshotPlan& plan) {
    if (isCowFile(plan.cow.path()) && dm::isLockedFile(plan.cow.path())) {
        requireNotFrozen(plan.cow.mountPoint);
        removeLockedFile(plan.cow.path());
    }
}

/// Returns false, with the reason in `device`, if the volume must be captured instead.
bool Driver::takeFirstByMapper(const SnapshotPlan& plan, Device& device) {
    if (const auto reason = unsupportedReason(plan.volume)) {
        device.whyCaptured = *reason;
        return false;
    }
    Device layered = device;
    layered.layers = MapperBackEnd::newLayers(plan.volume);
    removeStaleFiles(plan.cow);
    try {
        takeFirst(mapper, plan, layered);
        return true;
    } catch (const std::system_error& error) {
        if (error.code().value() != EOPNOTSUPP) {
            throw;
        }
        device.whyCaptured = error.what();
        return false;
    }
}

void Driver::takeFirst(IBackEnd& backEnd, const SnapshotPlan& plan, Device device) {
    backEnd.requireRoom(plan, device);
    reconcileOnFailure([&] {
        recordUnfinished(plan, device);
        backEnd.takeFirst(plan, device);
        Table next = table;
        next.devices.push_back(device);
        clearUnfinished(next, device);
        std::erase_if(next.asleep, [&](const Device& asleep) { return belongsTo(asleep, plan.volume); });
        commit(next);
    });
    reconcile();
}

void Driver::transitionSnapshot(std::uint32_t minor, const std::string& cowPath, std::uint64_t cowMebibytes) {
    const Device before = require(minor, Mode::tracking);
    const Volume volume = findVolume(devicePathOf(before));
    requireSameSize(before, volume);
    const SnapshotPlan plan{volume, locate(volume, cowPath), cowBytes(cowMebibytes, volume)};
    if (plan.cow.relative == before.cowFile) {
        fail(EEXIST, cowPath + " is in use");
    }
    const std::string closed = findCowFile(volume, before.cowFile);
    Device after = before;
    after.mode = Mode::snapshot;
    after.cowFile = plan.cow.relative;
    after.snapshot = makeUuid();
    if (after.layers && after.layers->error != 0) {
        if (const auto reason = unsupportedReason(volume)) {
            fail(EOPNOTSUPP, volume.path + " can't be tracked any more: " + *reason);
        }
        after.layers = MapperBackEnd::newLayers(volume); // and everything counts as changed
    }
    removeLockedPredecessor(plan);
    IBackEnd& backEnd = backEndOf(before);
    backEnd.requireRoom(plan, after);
    if (before.layers) {
        dm::unlockFile(closed); // no device is mapped to it while there is no snapshot
    }
    requireTable(before, closed);
    reconcileOnFailure([&] {
        recordUnfinished(plan, after);
        backEnd.takeNext(plan, before, closed, after);
        replace(after);
    });
    reconcile();
}

void Driver::transitionIncremental(std::uint32_t minor) {
    Device device = require(minor, Mode::snapshot);
    requireUnused(minor);
    IBackEnd& backEnd = backEndOf(device);
    backEnd.noteEnd(device);
    device.mode = Mode::tracking;
    replace(device);
    reconcile();
}

void Driver::reload(Mode mode, std::uint32_t minor, const std::string& blockDevice,
                    const std::string& cowFile, std::uint64_t cacheSize) {
    requireFree(minor);
    const Volume volume = findVolume(blockDevice);
    requireUntracked(volume);
    const std::string snapshot = snapshotOf(findCowFile(volume, cowFile));
    const auto found = std::ranges::find(table.asleep, snapshot, &Device::snapshot);
    if (found == table.asleep.end() || found->mode != mode) {
        fail(ENOENT, "a capture that belongs to " + cowFile + " on " + volume.path);
    }
    requireSameSize(*found, volume);
    Device device = *found;
    device.minor = minor;
    device.blockDevice = blockDevice;
    device.cowFile = cowFile;
    device.cacheSize = cacheSize;
    reconcileOnFailure([&] {
        backEndOf(device).reload(volume, device);
        Table next = table;
        next.devices.push_back(device);
        std::erase_if(next.asleep, [&](const Device& asleep) { return asleep.snapshot == snapshot; });
        commit(next);
    });
}

void Driver::reconfigure(std::uint32_t minor, std::uint64_t cacheSize) {
    Table next = table;
    const auto device = find(next.devices, minor);
    if (device == next.devices.end()) {
        fail(ENOENT, "device " + std::to_string(minor));
    }
    device->cacheSize = cacheSize;
    commit(next);
}

void Driver::destroy(std::uint32_t minor) {
    const Table before = table;
    const Device* device = findDevice(before, minor);
    if (device == nullptr) {
        fail(ENOENT, "device " + std::to_string(minor));
    }
    requireUnused(minor);
    Table next = table;
    std::ranges::copy(removalOfCowFile(*device), std::back_inserter(next.unfinished));
    next.devices.erase(find(next.devices, minor));
    commit(next); // first, because a half-removed device can't be used
    try {
        backEndOf(*device).release(*device);
    } catch (...) {
        commit(before);
        throw;
    }
    reconcile();
}

void Driver::checkSnapshot(std::uint32_t minor) const {
    const Device& device = require(minor, Mode::snapshot);
    if (device.layers && device.layers->error != 0) {
        fail(device.layers->error, "the snapshot of " + device.blockDevice);
    }
}

std::uint64_t Driver::roomBeyondCowFile(const std::string& blockDevice) const {
    const Volume volume = findVolume(blockDevice);
    const bool isTracked =
        std::ranges::any_of(table.devices, [&](const Device& device) { return belongsTo(device, volume); });
    return isTracked || unsupportedReason(volume) ? 0
                                                  : eraFileSize(volume.size, eraBlockSectors(volume.size));
}

void Driver::forgetAsleep() {
    Table next = table;
    next.asleep.clear();
    commit(next);
    reconcile();
}

} // namespace tolvubd
