#pragma once

#include "core/fs/IVolumeReader.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace audit {

/// Tells whether a block is on the free list (AGFL) of its XFS allocation group, where the group keeps a few
/// blocks in reserve for its B-trees. The kernel doesn't report these blocks as free, but they hold no data.
/// Owns:    nothing; the reader must outlive this object.
/// Threads: one at a time.
/// Fails:   a list that can't be read counts as empty.
class FreeLists {
public:
    explicit FreeLists(agent::core::IVolumeReader& reader);

    bool hasBlockAt(std::uint64_t offset);

private:
    std::vector<std::uint32_t> read(std::uint32_t group);

    agent::core::IVolumeReader& reader;
    std::uint32_t blockSize = 0; // 0 if the volume isn't XFS
    std::uint64_t groupBlocks = 0;
    std::uint64_t sectorSize = 0;
    bool hasCrcHeader = false;
    std::optional<std::uint32_t> cachedGroup; // the group whose free list `list` is
    std::vector<std::uint32_t> list;
};

} // namespace audit
