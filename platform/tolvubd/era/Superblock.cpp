#include "era/Superblock.h"

#include "Failure.h"

namespace tolvubd::era {

Writeset readWriteset(const Block& block, std::size_t offset) {
    return {block.number32(offset + writeset::bitsOffset), block.number64(offset + writeset::rootOffset)};
}

Superblock readSuperblock(BlockReader& reader, std::uint64_t place) {
    Superblock superblock;
    reader.read({reader.claim(place, 0)}, superblock::kind,
                [&](std::uint64_t /*key*/, const Block& block) { superblock = superblockIn(block, place); });
    return superblock;
}

Superblock superblockIn(const Block& block, std::uint64_t place) {
    if (!block.isSound(superblock::kind, place) ||
        block.number64(superblock::magicOffset) != superblock::magic ||
        block.number32(superblock::versionOffset) != superblock::version) {
        fail(EBADMSG, "the era metadata is damaged, or of another format");
    }
    const Superblock superblock = {.blockSectors = block.number32(superblock::dataBlockSizeOffset),
                                   .blocks = block.number32(superblock::blocksOffset),
                                   .currentEra = block.number32(superblock::currentEraOffset),
                                   .current = readWriteset(block, superblock::currentWritesetOffset),
                                   .writesetTree = block.number64(superblock::writesetTreeOffset),
                                   .eraArray = block.number64(superblock::eraArrayOffset),
                                   .heldSnapshot = block.number64(superblock::heldSnapshotOffset)};
    if (superblock.blockSectors == 0 || superblock.blockSectors % superblock::leastDataBlockSize != 0) {
        fail(EBADMSG, "the size of a block in the era metadata");
    }
    return superblock;
}

} // namespace tolvubd::era
