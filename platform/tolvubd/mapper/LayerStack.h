#pragma once

#include "Table.h"
#include "dm/Mapper.h"
#include "mapper/Targets.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolvubd {

/// The device-mapper devices with which one volume is tracked:
///
///     volume    era on `meta` and `mid`          in use by programs; its own table is that of `lower`
///     mid       linear on `lower`, or, while there is a snapshot, snapshot-origin on `lower`
///     snapshot  snapshot of `lower` with its store on `cow`
///     meta, cow pieces of `lower`: the extents of files on the volume
///     lower     the volume's own table
///
/// All state is in the kernel, where the devices are found by the UUID of the tracking.
///
/// Owns:    nothing: the devices stay until removeLayers.
/// Threads: one at a time for a volume.
/// Fails:   std::system_error with the kernel's errno. Devices created before the failure stay until
///          removeLayers.
class LayerStack {
public:
    explicit LayerStack(std::string id);

    /// The device of a tracked volume. Throws ENXIO when there is none.
    static dm::Device volumeOf(const Layers& layers);
    /// The UUIDs of all trackings that have devices in the kernel.
    static std::vector<std::string> present();

    /// Whether the kernel has any device of this tracking.
    [[nodiscard]] bool isPresent() const;

    /// Whether the kernel has the device `cow`, whose blocks are those of the CoW file.
    [[nodiscard]] bool hasStore() const;

    /// Creates lower, with the volume's live table, and mid and meta on it. Doesn't change the volume itself.
    void createBelow(const dm::Device& volume, const Layers& layers);
    /// Creates the metadata of a new era target. The old content of `meta` is lost.
    void formatEra(const Layers& layers);
    /// Creates cow and snapshot, and loads a new table for mid. The tables of snapshot and mid become live
    /// when these are resumed. With `isNew`, the store is emptied.
    enum class Store { isNew, isKept };
    void createSnapshot(const Layers& layers, Store store);
    /// Loads the era target as the volume's new table, which becomes live when the volume is resumed.
    void loadEraTarget(const dm::Device& volume, const Layers& layers);
    /// The devices to be resumed while the volume is suspended, in this order.
    [[nodiscard]] std::vector<dm::Device> innerDevices() const;

    /// Resumes a volume that a dead process has left suspended.
    void resumeIfSuspended() const;
    /// Goes back from a snapshot to tracking alone; does nothing if there is no snapshot.
    void endSnapshot();
    /// Gives the volume its own table back, if it has ours. This ends the tracking.
    void restoreOwnTable();
    /// Calls restoreOwnTable and removes the devices. Throws EBUSY when the snapshot is in use.
    void removeLayers();

    /// Checks the layers; returns 0 or an errno. ENXIO: a device is missing. ESTALE: the volume has another
    /// table than ours, or is elsewhere according to LVM. ENOSPC: the snapshot's store has overflowed.
    /// EOVERFLOW: the metadata of the era target is nearly full.
    [[nodiscard]] int check(const Layers& layers, Mode mode) const;
    /// The volume's current era.
    [[nodiscard]] std::uint32_t era() const;
    /// One flag for each block of the era target: whether it was written in the era `first` or later.
    [[nodiscard]] std::vector<bool> writtenSince(std::uint32_t first) const;
    /// How full the snapshot's store is. None when there is no valid snapshot.
    [[nodiscard]] std::optional<StoreRoom> room() const;

    [[nodiscard]] dm::Device snapshot() const;
    [[nodiscard]] dm::Device lower() const;
    /// The device that has the era target of this tracking as its table; none if there isn't one.
    [[nodiscard]] std::optional<dm::Device> eraDevice() const;

private:
    [[nodiscard]] std::vector<dm::Device> holders() const;

    std::string id;
};

} // namespace tolvubd
