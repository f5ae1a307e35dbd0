#pragma once

#include "IBackEnd.h"
#include "mapper/LayerStack.h"

namespace tolvubd {

/// Snapshots and tracking with the kernel's device-mapper, for volumes that are device-mapper devices. A
/// volume of any size is frozen for milliseconds only, and the changed blocks are known at any time.
///
/// The state of a device is in three places: the caller's table, the kernel, and the seal in `.tolvu.era`,
/// which counts after a restart of the machine. The table is written first. If the kernel's devices differ
/// from it, `reconcile` corrects them and rewrites the seals.
///
/// Owns:    nothing in memory; device-mapper devices stay until `release` or `reconcile` removes them.
/// Threads: one at a time; the caller holds the driver's lock.
/// Fails:   std::system_error; EOPNOTSUPP when the volume can't have layers, and must be captured.
class MapperBackEnd : public IBackEnd {
public:
    /// The layers of a new device of this back end.
    [[nodiscard]] static Layers newLayers(const Volume& volume);

    [[nodiscard]] bool owns(const Device& device) const override { return device.layers.has_value(); }
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
