#pragma once

#include "Table.h"
#include "Volume.h"

#include <cstdint>
#include <string>

namespace tolvubd {

/// The volume to take a snapshot of, and where its CoW file goes.
struct SnapshotPlan {
    Volume volume;
    PathOnVolume cow;
    std::uint64_t cowSize = 0; ///< in bytes
};

/// A way to take snapshots and to find out which blocks have changed between two of them.
///
/// Owns:    only the devices and files it creates on the machine. The caller owns the table of devices; it
///          writes the table before and after each call, and calls `reconcile` after any failure.
/// Threads: one at a time; the caller holds the driver's lock.
/// Fails:   std::system_error; `reconcile` then makes the machine match the table again.
class IBackEnd {
public:
    virtual ~IBackEnd() = default;

    /// Whether this back end made the device.
    [[nodiscard]] virtual bool owns(const Device& device) const = 0;

    /// Checks, before anything is changed, whether a snapshot can be taken. Throws EDEADLK, ENOSPC or EBUSY
    /// if not.
    virtual void requireRoom(const SnapshotPlan& plan, const Device& device) const = 0;
    /// Takes the first snapshot of a volume and shows it. Fills in the fields of `device` that identify the
    /// snapshot.
    virtual void takeFirst(const SnapshotPlan& plan, Device& device) = 0;
    /// Takes the next snapshot and shows it. Writes the record of the changes since the last snapshot into
    /// the CoW file `closed`, which belongs to that last snapshot.
    virtual void takeNext(const SnapshotPlan& plan, const Device& before, const std::string& closed,
                          Device& after) = 0;
    /// Updates `device` for the end of its snapshot; the caller writes it to the table. Throws the error that
    /// broke the snapshot, unless tracking can go on despite it.
    virtual void noteEnd(Device& device) = 0;
    /// Removes everything of the device from the machine, except its files on the volume.
    virtual void release(const Device& device) = 0;
    /// Reloads a device from before the machine was restarted. Throws ENOENT when none of its state can be
    /// trusted.
    virtual void reload(const Volume& volume, Device& device) = 0;
    /// Checks all devices. Removes from the table the devices whose captures are gone, and records the errors
    /// of the others.
    virtual void examine(Table& table) = 0;
    /// Makes the machine match the table. Logs failures; the next call tries again.
    virtual void reconcile(const Table& table) = 0;
};

} // namespace tolvubd
