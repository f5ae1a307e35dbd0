#pragma once

#include "Extents.h"
#include "Process.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolvubd {

enum class Mode : std::uint32_t { tracking = 2, snapshot = 3 };

/// The state of a device whose volume is tracked by device-mapper. Extents are in bytes of the volume, as its
/// own table maps it, in the order of the file's contents.
struct Layers {
    std::string id;                 ///< UUID of this tracking; part of its device-mapper devices' names
    std::string volume;             ///< the volume's own device-mapper UUID
    std::vector<Extent> eraFile;    ///< `.tolvu.era`: the seal, followed by the era target's metadata
    std::vector<Extent> cowStore;   ///< the part of the CoW file that holds preserved blocks
    std::uint32_t blockSectors = 0; ///< block size of the era target, in sectors
    std::uint32_t snapshotEra = 0;  ///< blocks written in it or later have changed since the last snapshot
    std::string usedGroups; ///< which ext block groups were in use at the last snapshot, in hexadecimal
    std::vector<std::uint64_t>
        preservedBytes; ///< bytes that each of the last snapshots preserved, newest last
    int error = 0;      ///< errno of the check that failed; ENOSPC breaks the snapshot, others the tracking

    bool operator==(const Layers&) const = default;
};

/// One device of the driver. Without layers it has a capture, which it shows (mode snapshot) or compares the
/// next one with (mode tracking).
struct Device {
    std::uint32_t minor = 0;
    Mode mode = Mode::snapshot;
    std::string blockDevice; ///< as the caller named it
    std::string cowFile;     ///< relative to the mount point, with a leading slash
    std::string snapshot;    ///< UUID of the snapshot; also in the CoW file's header
    std::uint64_t size = 0;  ///< of the block device, in bytes
    std::uint64_t cacheSize = 0;
    std::vector<Extent> ownFileExtents; ///< extents, in the capture, of the files that no backup copies
    std::optional<Layers> layers = std::nullopt;
    /// Why device-mapper doesn't track the volume, if there are no layers.
    std::string whyCaptured = {}; // NOLINT(readability-redundant-member-init): or GCC warns of shorter lists

    bool operator==(const Device&) const = default;
};

/// The unfinished work of an operation: the things that it has begun to create or has yet to remove, and the
/// volume that it holds. A session that finds an entry cleans up after the operation.
struct Unfinished {
    std::string snapshot;
    std::string cowFile;    ///< absolute
    std::string mountPoint; ///< of the volume that is frozen during the operation; empty if none is
    /// The volume's FUSE server, which is stopped during the operation.
    std::optional<ProcessName> server = std::nullopt;
    /// UUID of the tracking that the entry belongs to; empty if there is none.
    std::string layers = {}; // NOLINT(readability-redundant-member-init): or GCC warns of shorter lists

    bool operator==(const Unfinished&) const = default;
};

/// The complete state of the driver.
struct Table {
    std::string session; ///< ID of the run of the machine in which `devices` are live
    std::vector<Device> devices;
    std::vector<Device> asleep; ///< devices of an earlier run, which a reload can bring back
    std::vector<Unfinished> unfinished;

    bool operator==(const Table&) const = default;
};

inline constexpr std::uint32_t highestMinor = 255;
inline constexpr std::size_t mostAsleep = 1024;
inline constexpr std::size_t mostUnfinished = 64;

const Device* findDevice(const Table& table, std::uint32_t minor);

/// A device as JSON, and back. readDevice throws an exception derived from std::exception for a text that
/// isn't valid.
std::string writeDevice(const Device& device);
Device readDevice(const std::string& text);

std::string writeTable(const Table& table);
/// Throws an exception derived from std::exception unless the text is a table as writeTable makes it; nothing
/// in it is trusted.
Table readTable(const std::string& text);

} // namespace tolvubd
