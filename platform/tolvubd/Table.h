#pragma once

#include "Extents.h"
#include "Process.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace tolvubd {

enum class Mode : std::uint32_t { tracking = 2, snapshot = 3 };

/// What there is of a device whose volume is tracked by device-mapper. Places are in bytes of the volume, as
/// its own table has it, in the order of the file.
struct Layers {
    std::string id;                 ///< UUID of this tracking; part of the names of its device-mapper devices
    std::string volume;             ///< the volume's own device-mapper UUID
    std::vector<Extent> eraFile;    ///< `.tolvu.era`: the seal, and behind it the metadata of the era target
    std::vector<Extent> cowStore;   ///< the part of the CoW file that takes preserved blocks
    std::uint32_t blockSectors = 0; ///< of the volume that share an era
    std::uint32_t firstEra = 0;     ///< what was written in it, or later, has changed since the last snapshot
    std::string groups; ///< which ext block groups were in use at the last snapshot, in hexadecimal
    std::vector<std::uint64_t> needs; ///< bytes that the last snapshots came to preserve, newest last
    int error =
        0; ///< errno of the check that failed; nothing of the device is trusted any more unless it is 0

    bool operator==(const Layers&) const = default;
};

/// One device of the driver. Where it has no layers it has a capture, which it shows (snapshot) or compares
/// with (tracking).
struct Device {
    std::uint32_t minor = 0;
    Mode mode = Mode::snapshot;
    std::string blockDevice; ///< as it was given
    std::string cowFile;     ///< relative to the mount point, with a leading slash
    std::string snapshot;    ///< UUID of the capture; it also stands in the CoW file's header
    std::uint64_t size = 0;  ///< of the block device, in bytes
    std::uint64_t cacheSize = 0;
    std::vector<Extent> own; ///< where the files lay in the capture that nobody copies
    std::optional<Layers> layers = std::nullopt;
    /// Why it isn't tracked by device-mapper, where it has no layers.
    std::string reason = {}; // NOLINT(readability-redundant-member-init): or GCC warns of shorter lists

    bool operator==(const Device&) const = default;
};

/// What an operation has begun to make, or has still to remove: whoever finds this has to take it away.
struct Unfinished {
    std::string snapshot;
    std::string cowFile;    ///< absolute
    std::string mountPoint; ///< of the volume that is frozen meanwhile; empty if none is
    /// The process that is stopped meanwhile, as it is the volume's file system.
    std::optional<ProcessName> server = std::nullopt;
    /// UUID of the tracking that goes with it; empty if there is none.
    std::string layers = {}; // NOLINT(readability-redundant-member-init): or GCC warns of shorter lists

    bool operator==(const Unfinished&) const = default;
};

/// All that the driver knows.
struct Table {
    std::string session; ///< names the run of the machine in which `devices` are live
    std::vector<Device> devices;
    std::vector<Device> asleep; ///< devices of an earlier run, to be given back by a reload
    std::vector<Unfinished> unfinished;

    bool operator==(const Table&) const = default;
};

inline constexpr std::uint32_t highestMinor = 255;
inline constexpr std::size_t mostAsleep = 1024;
inline constexpr std::size_t mostUnfinished = 64;

const Device* findDevice(const Table& table, std::uint32_t minor);

/// A device as JSON, and back: throws std::runtime_error for what isn't one.
std::string writeDevice(const Device& device);
Device readDevice(const std::string& text);

std::string writeTable(const Table& table);
/// Takes nothing on trust: a text that isn't a table as writeTable makes it throws std::runtime_error.
Table readTable(const std::string& text);

} // namespace tolvubd
