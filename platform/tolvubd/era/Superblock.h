#pragma once

#include "era/BlockReader.h"

#include <cstdint>

namespace tolvubd::era {

/// The set of blocks written in one era; see Format.h.
struct Writeset {
    std::uint32_t bits = 0;
    std::uint64_t root = 0; ///< 0 if there is no set
};

Writeset readWriteset(const Block& block, std::size_t offset);

/// The root of all metadata. In the superblock of a metadata snapshot, `currentEra` and `current` are
/// meaningless.
struct Superblock {
    std::uint32_t blockSectors = 0;
    std::uint32_t blocks = 0; ///< of the volume
    std::uint32_t currentEra = 0;
    Writeset current;
    std::uint64_t writesetTree = 0;
    std::uint64_t eraArray = 0;
    std::uint64_t heldSnapshot = 0; ///< the block number of its superblock; 0 if there is none
};

/// Both throw EBADMSG for a superblock that isn't sound, or of another version of the format.
Superblock readSuperblock(BlockReader& reader, std::uint64_t place);
Superblock superblockIn(const Block& block, std::uint64_t place);

} // namespace tolvubd::era
