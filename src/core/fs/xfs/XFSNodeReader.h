#pragma once

#include "core/fs/xfs/XFSBTreeNode.h"

namespace agent::core::fs {

/// The numbers that locate the blocks of an allocation group.
struct XFSGroup {
    std::uint32_t blockSize;
    std::uint32_t agBlocks;
    std::uint32_t number;
};

/// Reads and checks the nodes of one allocation group's B-tree of free extents.
/// Owns:    the block that it has read last; logger and reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   std::runtime_error, which says what can't be read or is wrong.
class XFSNodeReader {
public:
    /// `traces`: whether debug lines are logged.
    XFSNodeReader(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize, XFSGroup group,
                  bool traces);

    /// Reads the node in the group's block `agBlock`.
    XFSParserImpl::XFSBTreeNode read(std::uint32_t agBlock);

private:
    void fetch(std::uint32_t agBlock);
    bool ensureRead(std::size_t offset, std::size_t length);
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
    bool isBlockRead = false; // whether the whole block could be read
    std::size_t headerSize = 0;
};

} // namespace agent::core::fs
