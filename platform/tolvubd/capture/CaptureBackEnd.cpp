#include "capture/CaptureBackEnd.h"

#include "CowFile.h"
#include "Failure.h"
#include "FileAccess.h"
#include "HoldGuard.h"
#include "Layout.h"
#include "SystemLog.h"
#include "TryTo.h"
#include "capture/Capture.h"
#include "capture/CaptureNode.h"
#include "capture/Compare.h"
#include "capture/FreshUnits.h"
#include "capture/FrozenFileSystem.h"
#include "capture/StoppedServer.h"

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <memory>
#include <set>
#include <sys/stat.h>

namespace tolvubd {

namespace {

namespace fs = std::filesystem;

/// Freezes the file system. If that isn't supported, stops its FUSE server.
std::unique_ptr<HoldGuard> holdVolume(const Volume& volume, const std::string& mountPoint) {
    try {
        return std::make_unique<HoldGuard>(std::make_unique<FrozenFileSystem>(mountPoint));
    } catch (const std::system_error& error) {
        if (error.code().value() != EOPNOTSUPP) {
            throw;
        }
    }
    return std::make_unique<HoldGuard>(std::make_unique<StoppedServer>(volume, mountPoint));
}

void captureVolume(const SnapshotPlan& plan, Device& device) {
    using std::chrono::milliseconds;
    using std::chrono::steady_clock;
    const Volume& volume = plan.volume;
    makeCowFile(plan.cow.path(), device.snapshot, plan.cowSize);
    device.ownFileExtents = extentsOfOwnFiles(plan.cow.mountPoint, volume.size);
    Capture capture(layout::capture(device.snapshot), volume.path, volume.size);
    const auto begin = steady_clock::now();
    const std::unique_ptr<HoldGuard> held = holdVolume(volume, plan.cow.mountPoint);
    capture.copy([&] { held->reportProgress(); });
    held->release();
    const auto lasted = std::chrono::duration_cast<milliseconds>(steady_clock::now() - begin);
    logLine(Severity::info, volume.path + " was frozen for " + std::to_string(lasted.count()) + " ms while " +
                                std::to_string(volume.size) + " bytes were captured");
    capture.finish();
}

/// Writes the changes between the two captures into the CoW file that was current in between.
void record(const Device& before, const Device& after, const std::string& closed) {
    const CaptureInfo then{layout::capture(before.snapshot), before.ownFileExtents};
    const CaptureInfo now{layout::capture(after.snapshot), after.ownFileExtents};
    const std::vector<Extent> table = extentsOf(closed).value_or(std::vector<Extent>{});
    const std::vector<bool> fresh = findFreshUnits(then, now, table, before.size);
    CowTable changes(closed, before.snapshot, before.size);
    changes.finish(compareCaptures(
        then.path, now.path, before.size, fresh,
        [&](std::uint64_t unit, std::span<const std::uint64_t> words) { changes.write(unit, words); }));
}

std::set<std::string> capturesShown(const Table& table) {
    std::set<std::string> shown;
    for (const Device& device : table.devices) {
        if (device.mode == Mode::snapshot) {
            shown.insert(layout::capture(device.snapshot));
        }
    }
    return shown;
}

std::set<std::string> capturesKept(const Table& table) {
    std::set<std::string> kept;
    for (const auto* devices : {&table.devices, &table.asleep}) {
        for (const Device& device : *devices) {
            kept.insert(layout::capture(device.snapshot));
        }
    }
    return kept;
}

void tidyStore(const Table& table) {
    const std::set<std::string> shown = capturesShown(table);
    const std::set<std::string> kept = capturesKept(table);
    for (const fs::directory_entry& entry : fs::directory_iterator(layout::store)) {
        const std::string path = entry.path();
        // The capture is detached before it is removed: the loop device is found by the name of its file.
        if (path.ends_with(layout::captureSuffix) && !shown.contains(path) &&
            tryTo("detach " + path, [&] { detachCapture(path); }) && !kept.contains(path)) {
            tryTo("remove " + path, [&] { removeFile(path); });
        }
    }
}

void dropWithoutCapture(std::vector<Device>& devices) {
    std::erase_if(devices, [](const Device& device) {
        std::error_code error;
        const auto status = fs::status(layout::capture(device.snapshot), error);
        if (device.layers || status.type() != fs::file_type::not_found) {
            return false;
        }
        logLine(Severity::error, "the capture of " + device.blockDevice + " is gone, and so is its device");
        return true;
    });
}

} // namespace

/// The capture must not need any file on the file system that is frozen during the capture.
void CaptureBackEnd::requireRoom(const SnapshotPlan& plan, const Device& /*device*/) const {
    struct stat status{};
    checked(::stat(layout::store, &status), "look at the image store");
    if (status.st_dev == plan.volume.number) {
        fail(EDEADLK, "the image store is on " + plan.volume.path);
    }
    if (freeSpace(plan.cow.mountPoint) < plan.cowSize) {
        fail(ENOSPC, "the CoW file on " + plan.volume.path);
    }
    if (freeSpace(layout::store) < usedSpace(plan.cow.mountPoint)) {
        fail(ENOSPC, "the image store");
    }
    if (plan.volume.servers.empty()) {
        requireNotFrozen(plan.cow.mountPoint);
    }
}

void CaptureBackEnd::takeFirst(const SnapshotPlan& plan, Device& device) {
    captureVolume(plan, device);
    showCapture(layout::capture(device.snapshot), plan.volume.sectorSize, device.minor);
}

void CaptureBackEnd::takeNext(const SnapshotPlan& plan, const Device& before, const std::string& closed,
                              Device& after) {
    captureVolume(plan, after);
    record(before, after, closed);
    showCapture(layout::capture(after.snapshot), plan.volume.sectorSize, after.minor);
}

/// Does nothing: no program writes to a capture, so it can't break.
void CaptureBackEnd::noteEnd(Device& /*device*/) {}

/// Does nothing: `reconcile` removes captures that no device has.
void CaptureBackEnd::release(const Device& /*device*/) {}

void CaptureBackEnd::reload(const Volume& volume, Device& device) {
    if (device.mode == Mode::snapshot) {
        detachCapture(layout::capture(device.snapshot));
        showCapture(layout::capture(device.snapshot), volume.sectorSize, device.minor);
    }
}

void CaptureBackEnd::examine(Table& table) {
    dropWithoutCapture(table.devices);
    dropWithoutCapture(table.asleep);
}

void CaptureBackEnd::reconcile(const Table& table) {
    tryTo("tidy the store", [&] { tidyStore(table); });
}

} // namespace tolvubd
