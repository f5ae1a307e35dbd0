#pragma once

#include "core/fs/ntfs/NTFSIndexNode.h"
#include "core/fs/ntfs/NTFSPathElement.h"
#include "core/fs/ntfs/NTFSRecord.h"
#include "core/fs/ntfs/NTFSRunReader.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// The blocks of a directory's index, each of which is a node. Each block may be read only once, so a walk
/// along the numbers of children always ends.
/// Owns:    the runs of the index, and which blocks have been read. The name must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   std::runtime_error if a block can't be read, isn't valid, or has been read before.
class NTFSIndexAllocation {
public:
    static constexpr std::uint64_t maxBlockSize = 64UL * 1024;
    static constexpr std::uint64_t maxIndexBytes = 1024UL * 1024 * 1024;

    /// `blockSize` is a power of two, at least 512. Throws if it, or the whole index, is too large.
    NTFSIndexAllocation(NTFSRunReader content, std::uint64_t blockSize, std::uint64_t clusterBytes,
                        const NTFSPathElement& sought);

    [[nodiscard]] std::size_t blockCount() const { return wasRead.size(); }
    NTFSRecord readBlock(std::uint64_t vcn);
    /// The node in a block; the block must outlive it.
    [[nodiscard]] NTFSIndexNode nodeOf(const NTFSRecord& block) const;

private:
    void require(bool holds) const;
    void requireSize(bool holds) const;

    NTFSRunReader content;
    std::uint64_t blockSize;
    std::uint64_t vcnsOfBlock;
    const NTFSPathElement& sought;
    std::vector<bool> wasRead;
};

} // namespace agent::core::fs
