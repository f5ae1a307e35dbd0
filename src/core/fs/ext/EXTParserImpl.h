#pragma once

#include "common/AlignedBuffer.h"
#include "core/fs/ByteOrder.h"
#include "core/fs/IFileSystemParser.h"
#include "core/fs/IVolumeReader.h"
#include "core/fs/ext/EXTSuperBlock.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace agent::core::fs {

/// The implementation of EXTParser. docs/formats/ext.md describes what it reads, and what follows for a
/// backup.
class EXTParserImpl : public IFileSystemParser {
public:
    EXTParserImpl(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize);

    bool recognize() override;
    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override;
    [[nodiscard]] std::uint32_t getBlockSize() const override;

private:
    /// The fields of a group's descriptor that concern its bitmap.
    struct GroupBitmap {
        std::uint32_t block;
        std::uint32_t inodeBitmap; ///< a block number, like inodeTable
        std::uint32_t inodeTable;
        bool uninitialized;
        bool exceeds32Bits; ///< the bitmap's block number has more than 32 bits
    };
    using GroupBitmaps = std::vector<GroupBitmap>;

    /// The caller's map.
    struct UsedMap {
        std::uint8_t* buffer;
        std::uint64_t startBlock;
        std::uint64_t bits;
    };

    /// Some blocks of one group.
    struct Stretch {
        std::uint64_t first; ///< the first block, on the volume
        std::uint64_t bit;   ///< that block's bit in the group's bitmap
        std::uint64_t count;
    };

    bool readDescriptors(GroupBitmaps& bitmaps);
    [[nodiscard]] GroupBitmap decode(Bytes bytes) const;
    [[nodiscard]] bool isPlausible(const GroupBitmap& bitmap) const;
    std::int64_t copyGroups(const GroupBitmaps& bitmaps, const UsedMap& used);
    const std::uint8_t* bitmapOf(const GroupBitmaps& bitmaps, std::uint64_t group);
    [[nodiscard]] Stretch stretchOf(std::uint64_t group, std::uint64_t startBlock) const;
    [[nodiscard]] std::uint64_t neighbours(const GroupBitmaps& bitmaps, std::uint64_t group) const;
    void markBootBlock(const UsedMap& used) const;
    void markStructures(const UsedMap& used, const Stretch& stretch, std::uint64_t group,
                        const GroupBitmap& structures) const;
    std::int64_t fail(const std::string& reason);

    info::Logger& logger;
    IVolumeReader& reader;
    std::uint32_t sectorSize;
    EXTSuperBlock super;

    AlignedBuffer maps; // the bitmaps of the groups from firstRead to before endRead
    std::uint64_t firstRead = 0;
    std::uint64_t endRead = 0;
};

} // namespace agent::core::fs
