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

    bool isDriverVersionSupported() override { return mayPass() && inner.isDriverVersionSupported(); }
    bool startSnapshot(const info::BackupableVolume& volume, info::ICowFileSize& cowFileSize) override {
        return mayPass() && inner.startSnapshot(volume, cowFileSize);
    }
    bool revertOnFailure(const info::BackupableVolume& volume) override {
        return mayPass() && inner.revertOnFailure(volume);
    }
    bool transitionToIncremental(const info::BackupableVolume& volume) override {
        return mayPass() && inner.transitionToIncremental(volume);
    }
    bool getSnapshotPath(const info::BackupableVolume& volume, std::string& path) override {
        return mayPass() && inner.getSnapshotPath(volume, path);
    }
    bool getDeviceInfo(const info::BackupableVolume& volume, info::DriverDeviceInfo& info) override {
        return mayPass() && inner.getDeviceInfo(volume, info);
    }
    bool makeHistory(const info::BackupableVolume& volume, bool zeroFill) override {
        return mayPass() && inner.makeHistory(volume, zeroFill);
    }
    bool rollForward(const info::BackupableVolume& volume) override {
        return mayPass() && inner.rollForward(volume);
    }
    bool hasIncrementalHistory(const info::BackupableVolume& volume) override {
        return inner.hasIncrementalHistory(volume);
    }
    void removeIncrementalHistory(const info::BackupableVolume& volume) override {
        inner.removeIncrementalHistory(volume);
    }
    bool destroyDevice(const info::BackupableVolume& volume) override {
        return mayPass() && inner.destroyDevice(volume);
    }

private:
    bool mayPass() { return !failing.nextCallFails(); }

    info::IDriverController& inner;
    FailingCall& failing;
};

} // namespace agent::test
