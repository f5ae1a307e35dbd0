#pragma once

#include "core/fs/IVolumeReader.h"
#include "core/fs/hfs/HFSBTreeNode.h"
#include "core/fs/hfs/HFSVolumeHeader.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <queue>
#include <string>
#include <vector>

namespace agent::core::fs {

/// The tree of extents that didn't fit in the forks of their files. All of it is read, level by level, so the
/// extents of a file come in their order.
/// Owns:    the node that it has read last, and the numbers of those to be read.
/// Threads: one at a time; moves the reader's position.
/// Fails:   false, after a line in the log.
class HFSExtentsTree {
public:
    HFSExtentsTree(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    /// Appends what the tree has of the file's data to `extents`, which has those of its fork. The header has
    /// no objection.
    bool readOverflowExtents(const HFSVolumeHeader& header, std::uint32_t fileId,
                             std::vector<HFSExtent>& extents);

private:
    /// The file whose extents are looked for, and what is known of it so far.
    struct Search {
        std::uint32_t fileId;
        std::vector<HFSExtent>& extents;
        std::uint64_t blocks; ///< that `extents` have
    };

    static void appendExtents(const HFSBTreeNode& leaf, Search& search);
    void walk(const HFSVolumeHeader& header, Search search);
    void open(const HFSVolumeHeader& header);
    void readHeaderRecord();
    void readRoot();
    void readNode(std::uint32_t number, Search& search);
    void queueChildren(const HFSBTreeNode& node);
    HFSBTreeNode fetch(std::uint64_t diskOffset, const std::string& failure);
    [[nodiscard]] std::uint64_t diskOffsetOf(std::uint64_t fileOffset) const;

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize; // of the device, for the alignment of reads

    HFSFork fork;
    std::uint64_t blockSize = 0;
    std::uint64_t base = 0; // where the file begins on the volume
    std::uint32_t rootNode = 0;
    std::uint64_t nodeSize = 0;
    std::vector<std::uint8_t> bytes;   // of a node
    std::queue<std::uint32_t> waiting; // nodes to be read
    std::vector<bool> isRead;          // of each node
};

} // namespace agent::core::fs
