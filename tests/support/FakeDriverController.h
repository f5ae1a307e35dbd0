#pragma once

#include "info/BackupableVolume.h"
#include "info/DriverDeviceInfo.h"
#include "info/IDriverController.h"
#include "info/VolumeFiles.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace agent::test {

/// A driver that keeps its devices in a map and records what it is asked to do. An operation whose name is in
/// `failing` fails and has no effect.
/// Owns:    its devices and records.
/// Threads: one.
/// Fails:   a call that `failing` contains returns false.
class FakeDriverController : public info::IDriverController {
public:
    bool isDriverVersionSupported() override { return note("isDriverVersionSupported"); }

    bool startSnapshot(const info::BackupableVolume& volume, info::ICowFileSize& /*cowFileSize*/) override {
        return note("startSnapshot", volume) && start(volume);
    }

    bool revertOnFailure(const info::BackupableVolume& volume) override {
        return note("revertOnFailure", volume);
    }

    bool transitionToIncremental(const info::BackupableVolume& volume) override {
        const bool works = note("transitionToIncremental", volume) && devices.contains(volume.getUuid());
        if (works) {
            devices.at(volume.getUuid()).state = info::driver_state::tracking;
        }
        return works;
    }

    bool getSnapshotPath(const info::BackupableVolume& volume, std::string& path) override {
        const auto device = devices.find(volume.getUuid());
        if (failing.contains("getSnapshotPath") || device == devices.end()) {
            return false;
        }
        path = snapshotPath.empty() ? "/dev/tolvu" + std::to_string(device->second.minor) : snapshotPath;
        return true;
    }

    bool getDeviceInfo(const info::BackupableVolume& volume, info::DriverDeviceInfo& info) override {
        const auto device = devices.find(volume.getUuid());
        if (device == devices.end() || lookups-- == 0) {
            return false;
        }
        info = device->second;
        return true;
    }

    bool makeHistory(const info::BackupableVolume& volume, bool zeroFill) override {
        return note(zeroFill ? "makeEmptyHistory" : "makeHistory", volume);
    }

    bool rollForward(const info::BackupableVolume& volume) override { return note("rollForward", volume); }

    bool hasIncrementalHistory(const info::BackupableVolume& /*volume*/) override { return hasHistory; }

    void removeIncrementalHistory(const info::BackupableVolume& volume) override {
        note("removeIncrementalHistory", volume);
    }

    bool destroyDevice(const info::BackupableVolume& volume) override {
        const bool works = note("destroyDevice", volume);
        if (works) {
            devices.erase(volume.getUuid());
        }
        return works;
    }

    std::map<std::string, info::DriverDeviceInfo> devices; ///< by volume UUID
    std::set<std::string> failing;
    int lookups = -1; ///< how many calls of getDeviceInfo work before one fails
    bool hasHistory = true;
    std::string snapshotPath;       ///< if set, in place of the usual path
    std::vector<std::string> calls; ///< those that change something: name and volume UUID

private:
    bool note(const std::string& name) {
        calls.push_back(name);
        return !failing.contains(name);
    }

    bool note(const std::string& name, const info::BackupableVolume& volume) {
        calls.push_back(name + " " + volume.getUuid());
        return !failing.contains(name) && !failing.contains(calls.back());
    }

    const std::string firstCow = std::string("/") + info::volume_files::firstCow;
    const std::string secondCow = std::string("/") + info::volume_files::secondCow;

    bool start(const info::BackupableVolume& volume) {
        const auto device = devices.find(volume.getUuid());
        if (device == devices.end()) {
            const auto minor = static_cast<std::int32_t>(devices.size());
            devices[volume.getUuid()] = {minor, info::driver_state::activeSnapshot, firstCow,
                                         volume.getDevice(), 0};
            return true;
        }
        device->second.state = info::driver_state::activeSnapshot;
        device->second.cow_file = device->second.cow_file == firstCow ? secondCow : firstCow;
        return true;
    }
};

} // namespace agent::test
