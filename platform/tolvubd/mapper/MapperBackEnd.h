#pragma once

#include "IBackEnd.h"
#include "mapper/LayerStack.h"

namespace tolvubd {

/// Snapshots and tracking by the kernel's device-mapper, for volumes that lie on it: frozen for milliseconds
/// at any size, with what has changed known all the time.
///
/// The state of a device is in three places: the table of the caller, the kernel, and the seal in
/// `.tolvu.era`, which is what counts after a restart of the machine. The table is written first; where the
/// kernel isn't as it says, `tidy` brings it there, and writes the seals anew.
class MapperBackEnd : public IBackEnd {
public:
    /// What a device of this back end begins with.
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
    void tidy(const Table& table) override;
};

} // namespace tolvubd
