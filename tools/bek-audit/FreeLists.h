#pragma once

#include "core/fs/IVolumeReader.h"

#include <cstdint>
#include <optional>
#include <vector>

namespace audit {

/// Whether a block stands on the free list of its allocation group of an XFS file system, by which the group
/// keeps some blocks at hand for its trees: to the kernel they are no free space, and there is nothing in
/// them.
/// Owns:    nothing; the reader must outlive it.
/// Threads: one at a time.
/// Fails:   what can't be read is on no list.
class FreeLists {
public:
    explicit FreeLists(agent::core::IVolumeReader& reader);

    bool hasBlockAt(std::uint64_t offset);

private:
    std::vector<std::uint32_t> read(std::uint32_t group);

    agent::core::IVolumeReader& reader;
    std::uint32_t blockSize = 0; // 0 for what isn't XFS
    std::uint64_t groupBlocks = 0;
    std::uint64_t sectorSize = 0;
    bool hasHeader = false;
    std::optional<std::uint32_t> known; // the group whose list this is
    std::vector<std::uint32_t> list;
};

} // namespace audit
