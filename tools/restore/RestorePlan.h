#pragma once

#include "IImage.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <string>
#include <vector>

namespace restore {

/// All reads and writes are aligned to this.
inline constexpr std::uint64_t pageBytes = 4096;

/// A range of bytes of a volume.
struct ByteRange {
    std::uint64_t begin = 0;
    std::uint64_t length = 0;

    [[nodiscard]] std::uint64_t end() const { return begin + length; }
};

/// The parts of an image that have to be written to restore its volume.
struct RestorePlan {
    static constexpr std::uint64_t headBytes = 1UL << 20U; ///< at the volume's beginning, written last

    std::uint64_t volumeBytes = 0; ///< of the file system; of the image if that isn't known
    std::vector<ByteRange> used;   ///< ascending whole pages, cut at the volume's end; none touches the next
    /// The parts of these pages that are in no used block, if blocks are smaller than pages; ascending. Their
    /// content is arbitrary.
    std::vector<ByteRange> unusedPageParts;
    std::uint64_t usedBytes = 0; ///< sum of all ranges of `used`
    bool takesAllBlocks = false; ///< the used blocks aren't known, so all blocks are taken
    std::string reason;          ///< why the used blocks aren't known; empty if they are
    /// Two images have the same identity only if their maps of used blocks and their first MiB are equal.
    /// Then a restore that was begun with one of them can be resumed with the other.
    std::uint32_t identity = 0;
};

/// Reads the maps of the file system. Throws std::runtime_error if the image can't be read, or is smaller
/// than the smallest volume.
RestorePlan makePlan(agent::info::Logger& logger, IImage& image);

} // namespace restore
