#pragma once

#include "common/AlignedBuffer.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// Some entries of a FAT at a time: that of a large volume has more bytes than a backup may take memory.
/// Owns:    what it has read; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a negative result, after the reader's lines.
class FATWindow {
public:
    static constexpr std::int64_t unreadable = -1;
    static constexpr std::int64_t tooShort = -400; ///< the device ends within what was asked for

    /// Of the FAT at that byte of the volume.
    FATWindow(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize, std::uint64_t fatOffset);

    /// Reads `count` entries from `first` on, or as many as fit, which is thousands. Returns how many they
    /// are; `unreadable` or `tooShort`.
    std::int64_t read(std::uint64_t first, std::uint64_t count);

    /// The first of the entries that were read, without the bits that mean nothing.
    [[nodiscard]] std::uint32_t front() const;
    /// Sets the bits of the first `count` blocks from `targetBit` on, which are 0 so far. A block is used if
    /// the cluster of its entry is; if blocks straddle clusters, also if the cluster of the next entry is.
    void copyUse(std::uint8_t* target, std::uint64_t targetBit, std::uint64_t count, bool isStraddling);

private:
    void decode(std::uint64_t count);

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
    std::uint64_t fatOffset;

    AlignedBuffer entries;           // from a boundary on, so that the device can deliver straight into them
    std::uint64_t skipped = 0;       // entries in front of those that were asked for
    std::vector<std::uint64_t> used; // a bit for each entry
};

} // namespace agent::core::fs
