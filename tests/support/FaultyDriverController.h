#pragma once

#include "info/DriverDeviceInfo.h"
#include "info/IDriverController.h"
#include "support/FailingCall.h"

#include <string>

namespace agent::test {

/// Wraps a driver controller. One call fails before it has any effect. Querying and removing an incremental
/// history can't fail.
class FaultyDriverController : public info::IDriverController {
public:
    FaultyDriverController(info::IDriverController& inner, FailingCall& failing)
        : inner(inner), failing(failing) {}

    bool isDriverVersionSupported() override { return works() && inner.isDriverVersionSupported(); }
    bool startSnapshot(const info::BackupableVolume& volume, info::ICowFileSize& cowFileSize) override {
        return works() && inner.startSnapshot(volume, cowFileSize);
    }
    bool revertOnFailure(const info::BackupableVolume& volume) override {
        return works() && inner.revertOnFailure(volume);
    }
    bool transitionToIncremental(const info::BackupableVolume& volume) override {
        return works() && inner.transitionToIncremental(volume);
    }
    bool getSnapshotPath(const info::BackupableVolume& volume, std::string& path) override {
        return works() && inner.getSnapshotPath(volume, path);
    }
    bool getDeviceInfo(const info::BackupableVolume& volume, info::DriverDeviceInfo& info) override {
        return works() && inner.getDeviceInfo(volume, info);
    }
    bool makeHistory(const info::BackupableVolume& volume, bool zeroFill) override {
        return works() && inner.makeHistory(volume, zeroFill);
    }
    bool rollForward(const info::BackupableVolume& volume) override {
        return works() && inner.rollForward(volume);
    }
    bool hasIncrementalHistory(const info::BackupableVolume& volume) override {
        return inner.hasIncrementalHistory(volume);
    }
    void removeIncrementalHistory(const info::BackupableVolume& volume) override {
        inner.removeIncrementalHistory(volume);
    }
    bool destroyDevice(const info::BackupableVolume& volume) override {
        return works() && inner.destroyDevice(volume);
    }

private:
    bool works() { return !failing.isNow(); }

    info::IDriverController& inner;
    FailingCall& failing;
};

} // namespace agent::test
