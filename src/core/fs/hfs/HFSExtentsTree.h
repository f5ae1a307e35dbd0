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

/// The B-tree of the extents that don't fit in the forks of their files. Reads the whole tree, level by
/// level, so that a file's extents come in order.
/// Owns:    the last node that it has read, and the numbers of the nodes to read.
/// Threads: one at a time; moves the reader's position.
/// Fails:   by returning false, after a log line.
class HFSExtentsTree {
public:
    HFSExtentsTree(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    /// Appends the extents of the file's data fork in the tree to `extents`, which holds those of the file's
    /// fork. `header` must be usable.
    bool readOverflowExtents(const HFSVolumeHeader& header, std::uint32_t fileId,
                             std::vector<HFSExtent>& extents);

private:
    /// The file whose extents are searched, and its extents found so far.
    struct Search {
        std::uint32_t fileId;
        std::vector<HFSExtent>& extents;
        std::uint64_t blocks; ///< the number of blocks in `extents`
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
    std::uint64_t base = 0; // the position of the tree's file on the volume
    std::uint32_t rootNode = 0;
    std::uint64_t nodeSize = 0;
    std::vector<std::uint8_t> bytes;   // the bytes of the current node
    std::queue<std::uint32_t> waiting; // the nodes to read
    std::vector<bool> isRead;          // for each node: whether it has been read
};

} // namespace agent::core::fs
