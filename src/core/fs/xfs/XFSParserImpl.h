#pragma once

#include "core/fs/ByteOrder.h"
#include "core/fs/IFileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "core/fs/xfs/XFSFeatures.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::fs {

class XFSNodeReader;
class XFSUsedMap;

/// The implementation of XFSParser. docs/formats/xfs.md describes what it reads, and what follows for a
/// backup.
class XFSParserImpl : public IFileSystemParser {
public:
    class XFSBTreeNode;

    XFSParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    bool recognize() override;
    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] std::uint32_t getBlockSize() const override { return blockSize; }

private:
    /// Free-space information of an allocation group.
    struct FreeSpaceInfo {
        std::uint32_t root; ///< the root of the B-tree of free extents, a block number in the group
        std::uint32_t listFirst;
        std::uint32_t listLast;
        std::uint32_t listCount;
    };

    /// A level of the B-tree, and the group's block with its leftmost node.
    struct Level {
        std::uint32_t leftmost;
        std::uint32_t number;
    };

    void decodeFormat(Bytes block);
    [[nodiscard]] std::string whyUnusable() const;
    [[nodiscard]] const char* impossibleGeometry() const;
    [[nodiscard]] bool hasCrc() const;
    /// The byte position of one of the sectors at the start of a group.
    [[nodiscard]] std::uint64_t headAddress(std::uint32_t group, std::uint64_t sector) const;
    [[nodiscard]] std::uint64_t groupAddress(std::uint32_t group) const;

    void markFreeBlocks(XFSUsedMap& map);
    void markGroup(XFSUsedMap& map, std::uint32_t group);
    FreeSpaceInfo readFreeSpaceInfo(std::uint32_t group);
    std::vector<std::uint32_t> readFreeList(std::uint32_t group);
    void markFreeList(XFSUsedMap& map, std::uint32_t group, const FreeSpaceInfo& info);
    void markTree(XFSUsedMap& map, std::uint32_t group, std::uint32_t root);
    std::uint32_t markLevel(XFSUsedMap& map, std::uint32_t group, XFSNodeReader& nodes, Level level);
    void markRecords(XFSUsedMap& map, std::uint32_t group, const XFSBTreeNode& node);
    void markFree(XFSUsedMap& map, std::uint32_t group, std::uint32_t agBlock, std::uint32_t blocks) const;
    [[nodiscard]] std::uint64_t groupBlocks(std::uint32_t group) const;

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize; // of the device, for the alignment of reads
    bool traces = false;      // whether debug lines are logged; set once per chunk, for millions of nodes

    std::uint32_t magic = 0;
    std::uint32_t blockSize = 0;
    std::uint64_t totalBlocks = 0;
    std::uint32_t agBlocks = 0;
    std::uint32_t agCount = 0;
    std::uint16_t version = 0;
    std::uint16_t headSectorSize = 0; // the file system's sector size, for positions within a group's head
    XFSFeatureWords features;         // used only to detect what can't be read safely
};

} // namespace agent::core::fs
