#pragma once

#include "IImage.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <string>
#include <vector>

namespace restore {

/// What all reads and writes are aligned to.
inline constexpr std::uint64_t pageBytes = 4096;

/// Bytes of a volume, whole pages of 4096 but for its end.
struct ByteRange {
    std::uint64_t begin = 0;
    std::uint64_t length = 0;

    [[nodiscard]] std::uint64_t end() const { return begin + length; }
};

/// What of an image has to be written to bring its volume back.
struct RestorePlan {
    static constexpr std::uint64_t headBytes = 1UL << 20U; ///< at the volume's beginning, which come last

    std::uint64_t volumeBytes = 0; ///< of the file system; of the image where that doesn't tell
    std::vector<ByteRange> used;   ///< ascending, none touches the next
    /// What of these pages is in no block in use, where blocks are smaller than pages; ascending. It is
    /// anything.
    std::vector<ByteRange> margins;
    std::uint64_t usedBytes = 0; ///< of all ranges of `used`
    bool isWhole = false;        ///< it isn't certain which blocks are in use, so all of them are taken
    std::string reason;          ///< why, for people; empty if not
    /// Two images have the same one only if their maps of used blocks and their first MiB are the same: what
    /// was begun with one may be gone on with with the other.
    std::uint32_t identity = 0;
};

/// Reads the maps of the file system. Throws std::runtime_error if the image can't be read, or is smaller
/// than the smallest volume.
RestorePlan makePlan(agent::info::Logger& logger, IImage& image);

} // namespace restore
