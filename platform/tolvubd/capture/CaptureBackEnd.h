#pragma once

#include "IBackEnd.h"

namespace tolvubd {

/// Snapshots that are sparse copies of whole volumes, shown by loop devices and compared with each other. The
/// volume is frozen, or its FUSE server is stopped, for as long as it takes to read the volume.
///
/// Owns:    nothing in memory; captures and loop devices stay until `reconcile` removes them.
/// Threads: one at a time; the caller holds the driver's lock.
/// Fails:   std::system_error; ETIMEDOUT when the volume had to be released before all of it was read.
class CaptureBackEnd : public IBackEnd {
public:
    [[nodiscard]] bool owns(const Device& device) const override { return !device.layers; }
    void requireRoom(const SnapshotPlan& plan, const Device& device) const override;
    void takeFirst(const SnapshotPlan& plan, Device& device) override;
    void takeNext(const SnapshotPlan& plan, const Device& before, const std::string& closed,
                  Device& after) override;
    void noteEnd(Device& device) override;
    void release(const Device& device) override;
    void reload(const Volume& volume, Device& device) override;
    void examine(Table& table) override;
    void reconcile(const Table& table) override;
};

} // namespace tolvubd
