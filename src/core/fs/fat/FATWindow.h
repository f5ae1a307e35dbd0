#pragma once

#include "common/AlignedBuffer.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// A window of a FAT's entries in memory: the FAT of a large volume is larger than the memory that a backup
/// may use.
/// Owns:    the entries that it has read; the reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by a negative result, after the reader's log lines.
class FATWindow {
public:
    static constexpr std::int64_t unreadable = -1;
    static constexpr std::int64_t tooShort = -400; ///< the device ends within the requested entries

    /// `fatOffset` is the FAT's position on the volume, in bytes.
    FATWindow(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize, std::uint64_t fatOffset);

    /// Reads `count` entries from `first` on, or as many as fit, which are thousands. Returns the number of
    /// entries read, or `unreadable` or `tooShort`.
    std::int64_t read(std::uint64_t first, std::uint64_t count);

    /// The first entry that was read, without its undefined bits.
    [[nodiscard]] std::uint32_t front() const;
    /// Sets the bit of each used block among the first `count` blocks. The first block's bit is `targetBit`;
    /// all `count` bits must be 0 before. A block is used if its entry's cluster is used. If `isStraddling`,
    /// it is also used if the next entry's cluster is.
    void copyUsedBits(std::uint8_t* target, std::uint64_t targetBit, std::uint64_t count, bool isStraddling);

private:
    void decode(std::uint64_t count);

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
    std::uint64_t fatOffset;

    AlignedBuffer entries;           // begin at a boundary, so that the device can read directly into them
    std::uint64_t skipped = 0;       // how many entries precede the requested ones
    std::vector<std::uint64_t> used; // a bit for each entry
};

} // namespace agent::core::fs
