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
///     volume    era on `meta` and `mid`          what programs write to; its own table is that of `lower`
///     mid       linear on `lower`, or, while there is a snapshot, snapshot-origin on `lower`
///     snapshot  snapshot of `lower` with its store on `cow`
///     meta, cow pieces of `lower`: where files of the volume lie
///     lower     the volume's own table
///
/// Nothing of it is kept but in the kernel, where it is found by the UUID of the tracking.
///
/// Owns:    nothing: the devices stay until takeApart.
/// Threads: one at a time for a volume.
/// Fails:   std::system_error with the kernel's errno. What was made until then stays, for takeApart.
class LayerStack {
public:
    explicit LayerStack(std::string id);

    /// The device of a volume that is tracked; ENXIO when it isn't there.
    static dm::Device volumeOf(const Layers& layers);
    /// The trackings of which the kernel has devices.
    static std::vector<std::string> present();

    /// Whether the kernel has any device of this tracking.
    [[nodiscard]] bool isPresent() const;

    /// Whether the kernel has a device that lies in the CoW file.
    [[nodiscard]] bool hasStore() const;

    /// Makes lower, with the volume's live table, and mid and meta on it. The volume itself isn't touched.
    void createBelow(const dm::Device& volume, const Layers& layers);
    /// Makes the metadata of a new era target. What stood there is lost.
    void formatEra(const Layers& layers);
    /// Makes cow and the snapshot, and a new table for mid: all of it comes to life with the next resume of
    /// the snapshot and of mid. `isNew`: the store is emptied.
    enum class Store { isNew, isKept };
    void createSnapshot(const Layers& layers, Store store);
    /// Gives the volume the era target as its new table, which comes to life with its next resume.
    void loadTop(const dm::Device& volume, const Layers& layers);
    /// The devices to be resumed while the volume is suspended, in this order.
    [[nodiscard]] std::vector<dm::Device> inside() const;

    /// Lets a volume go on that somebody has left suspended who died.
    void letGo() const;
    /// Goes back from a snapshot to tracking alone; nothing if there is no snapshot.
    void endSnapshot();
    /// Gives the volume its own table back, if it has ours: nothing is tracked from there on.
    void giveBack();
    /// Does so and removes the devices. EBUSY when the snapshot is in use.
    void takeApart();

    /// What is wrong, as an errno; 0 if nothing is. ENXIO: a device is missing. ESTALE: the volume has
    /// another table than ours, or LVM says that it lies elsewhere. ENOSPC: the snapshot's store was too
    /// small. EOVERFLOW: the metadata of the era target soon will be.
    [[nodiscard]] int check(const Layers& layers, Mode mode) const;
    /// The era in which the volume is now.
    [[nodiscard]] std::uint32_t era() const;
    /// One flag for each block of the era target: whether it was written in the era `first` or later.
    [[nodiscard]] std::vector<bool> writtenSince(std::uint32_t first) const;
    /// None when there is no valid snapshot.
    [[nodiscard]] std::optional<StoreRoom> room() const;

    [[nodiscard]] dm::Device snapshot() const;
    [[nodiscard]] dm::Device lower() const;
    /// The device that has the era target of this tracking as its table; none when nobody has.
    [[nodiscard]] std::optional<dm::Device> top() const;

private:
    [[nodiscard]] std::vector<dm::Device> holders() const;

    std::string id;
};

} // namespace tolvubd
