#pragma once

#include "core/fs/xfs/XFSBTreeNode.h"

namespace agent::core::fs {

/// Where the blocks of an allocation group are.
struct XFSGroup {
    std::uint32_t blockSize;
    std::uint32_t agBlocks;
    std::uint32_t number;
};

/// Reads and checks the nodes of one allocation group's tree of free extents.
/// Owns:    the block that it has read last.
/// Threads: one at a time; moves the reader's position.
/// Fails:   std::runtime_error that says what can't be read or is wrong.
class XFSNodeReader {
public:
    /// `traces`: whether anybody gets the debug lines.
    XFSNodeReader(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize, XFSGroup group,
                  bool traces);

    /// The node at a block of the group.
    XFSParserImpl::XFSBTreeNode read(std::uint32_t agBlock);

private:
    void fetch(std::uint32_t agBlock);
    bool holds(std::size_t offset, std::size_t length);
    void readHeader(XFSParserImpl::XFSBTreeNode& node);
    void readRecords(XFSParserImpl::XFSBTreeNode& node);
    void readChildren(XFSParserImpl::XFSBTreeNode& node);
    [[nodiscard]] std::size_t capacity(bool isLeaf) const;
    void trace(const XFSParserImpl::XFSBTreeNode& node);

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
    XFSGroup group;
    bool traces;

    std::vector<std::uint8_t> block;
    std::uint64_t address = 0;
    bool isWhole = false; // the block has been read at once
    std::size_t headerSize = 0;
};

} // namespace agent::core::fs
