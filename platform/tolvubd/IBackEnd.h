#pragma once

#include "Table.h"
#include "Volume.h"

#include <cstdint>
#include <string>

namespace tolvubd {

/// What a snapshot is taken of, and where its CoW file goes.
struct SnapshotPlan {
    Volume volume;
    PathOnVolume cow;
    std::uint64_t cowSize = 0; ///< in bytes
};

/// A way to take snapshots and to find out what has changed from one to the next.
///
/// Owns:    nothing but what it makes on the machine; the table of the devices is the caller's, who writes it
///          before and after and calls `tidy` when anything has failed.
/// Threads: one at a time, as callers take turns.
/// Fails:   std::system_error; `tidy` then brings the machine back to what the table says.
class IBackEnd {
public:
    virtual ~IBackEnd() = default;

    /// Whether a device is this back end's.
    [[nodiscard]] virtual bool owns(const Device& device) const = 0;

    /// EDEADLK, ENOSPC, EBUSY: whether a snapshot can be taken at all, before anything has been changed.
    virtual void requireRoom(const SnapshotPlan& plan, const Device& device) const = 0;
    /// Takes the first snapshot of a volume and shows it. Fills in what the device is to be known by.
    virtual void takeFirst(const SnapshotPlan& plan, Device& device) = 0;
    /// Takes the next one, writes what has changed since the last into that one's CoW file `closed`, and
    /// shows it.
    virtual void takeNext(const SnapshotPlan& plan, const Device& before, const std::string& closed,
                          Device& after) = 0;
    /// Ends the snapshot of a device, as far as that is to be noted of it. Fails with what was wrong with the
    /// snapshot, unless tracking isn't touched by it.
    virtual void noteEnd(Device& device) = 0;
    /// Takes all that isn't in files of the volume away from the machine.
    virtual void release(const Device& device) = 0;
    /// Takes up a device of an earlier run of the machine. ENOENT when nothing is left of it to be trusted.
    virtual void reload(const Volume& volume, Device& device) = 0;
    /// Looks at all devices: takes those out of the table of which nothing is left, and notes what is wrong
    /// with the others.
    virtual void examine(Table& table) = 0;
    /// Brings the machine to what the table says. What resists is logged and tried again the next time.
    virtual void tidy(const Table& table) = 0;
};

} // namespace tolvubd
