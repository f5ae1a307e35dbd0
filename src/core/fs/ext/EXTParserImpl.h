#pragma once

#include "common/AlignedBuffer.h"
#include "core/fs/ByteOrder.h"
#include "core/fs/IVolumeReader.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace agent::core::fs {

/// What EXTParser does. docs/formats/ext.md tells what is read, and what comes of it for a backup.
class EXTParserImpl {
public:
    EXTParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    bool recognize();
    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer, std::size_t bufferBytes);

private:
    /// What a group's descriptor says of its bitmap.
    struct GroupBitmap {
        std::uint32_t block;
        bool uninitialized;
        bool isOutOfReach;  ///< its number has more than 32 bits
        bool hasLiveInodes; ///< in a table that lies in the group itself
    };
    using GroupBitmaps = std::vector<GroupBitmap>;

    /// Some blocks of one group.
    struct Stretch {
        std::uint64_t first; ///< block of the volume
        std::uint64_t bit;   ///< its bit in the group's bitmap
        std::uint64_t count;
    };

    [[nodiscard]] const char* objection() const;
    [[nodiscard]] bool descriptorsLieInOnePlace() const;
    [[nodiscard]] std::uint64_t blockSize() const { return std::uint64_t{1024} << logBlockSize; }
    [[nodiscard]] std::uint64_t groupBitmapBytes() const { return ((blocksPerGroup - 1) >> 3U) + 1; }
    [[nodiscard]] std::uint64_t groupCount() const;
    [[nodiscard]] std::uint64_t stride() const;

    bool readDescriptors(GroupBitmaps& bitmaps);
    [[nodiscard]] GroupBitmap decode(Bytes bytes, std::uint64_t group) const;
    [[nodiscard]] bool hasLiveInodes(Bytes bytes, std::uint64_t group) const;
    [[nodiscard]] bool isPlausible(const GroupBitmap& bitmap) const;
    std::int64_t copyGroups(const GroupBitmaps& bitmaps, std::uint64_t startBlock, std::uint8_t* buffer,
                            std::uint64_t bufferBits);
    [[nodiscard]] Stretch stretchOf(std::uint64_t group, std::uint64_t startBlock) const;
    [[nodiscard]] std::uint64_t neighbours(const GroupBitmaps& bitmaps, std::uint64_t group) const;
    std::int64_t fail(const char* reason);

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
    AlignedBuffer maps; // as many bitmaps as are read at once

    std::uint16_t descriptorSize = 0;
    std::uint32_t blocksPerGroup = 0;
    std::uint32_t blockCount = 0;
    std::uint32_t logBlockSize = 0;
    std::uint32_t firstDataBlock = 0;
    std::uint32_t incompatFeatures = 0;
    // Only to tell what can't be read safely:
    std::uint32_t roCompatFeatures = 0;
    std::uint32_t firstMetaBlock = 0;
    std::uint32_t inodesPerGroup = 0;
    std::uint32_t blockCountHigh = 0;
};

} // namespace agent::core::fs
