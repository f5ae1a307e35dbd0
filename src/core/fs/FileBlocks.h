#pragma once

#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// The blocks of a volume that hold the content of a file.
struct FileBlocks {
    struct Run {
        std::uint64_t first;
        std::uint64_t count;
        bool operator==(const Run&) const = default;
    };

    std::uint32_t blockSize = 0; ///< in bytes
    std::vector<Run> runs;       ///< in file order, without holes
};

} // namespace agent::core::fs
