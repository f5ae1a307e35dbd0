#pragma once

#include "core/fs/xfs/XFSParserImpl.h"

#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// A node of an allocation group's B-tree of free extents, in memory. XFSNodeReader reads it.
/// Owns:    its records and children.
/// Threads: a plain value; const calls are safe from any thread.
/// Fails:   never.
class XFSParserImpl::XFSBTreeNode {
public:
    struct Record {
        std::uint32_t startBlock; ///< in the group
        std::uint32_t blockCount;
    };

    XFSBTreeNode() = default;
    XFSBTreeNode(const XFSBTreeNode&) = default;
    XFSBTreeNode(XFSBTreeNode&&) = default;
    XFSBTreeNode& operator=(const XFSBTreeNode&) = default;
    XFSBTreeNode& operator=(XFSBTreeNode&&) = default;
    virtual ~XFSBTreeNode() = default;

    [[nodiscard]] bool isLeaf() const { return level == 0; }

    std::uint32_t magic = 0;
    std::uint16_t level = 0; ///< 0 for a leaf
    std::uint16_t numRecs = 0;
    std::uint32_t leftSib = 0;
    std::uint32_t rightSib = 0;
    std::vector<Record> records;         ///< in an internal node, the keys
    std::vector<std::uint32_t> children; ///< block numbers in the group; empty in a leaf
};

} // namespace agent::core::fs
