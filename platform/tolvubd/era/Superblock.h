#pragma once

#include "era/BlockReader.h"

#include <cstdint>

namespace tolvubd::era {

/// What one era has written; see Format.h.
struct Writeset {
    std::uint32_t bits = 0;
    std::uint64_t root = 0; ///< 0 if there is no set
};

Writeset readWriteset(const Block& block, std::size_t offset);

/// What the rest of the metadata hangs on. In one that a metadata snapshot holds, the current era and its set
/// mean nothing.
struct Superblock {
    std::uint32_t blockSectors = 0;
    std::uint32_t blocks = 0; ///< of the volume
    std::uint32_t currentEra = 0;
    Writeset current;
    std::uint64_t writesetTree = 0;
    std::uint64_t eraArray = 0;
    std::uint64_t heldSnapshot = 0; ///< the place of its superblock; 0 if there is none
};

/// Throw EBADMSG for one that isn't sound, or of another version of the format.
Superblock readSuperblock(BlockReader& reader, std::uint64_t place);
Superblock superblockIn(const Block& block, std::uint64_t place);

} // namespace tolvubd::era
