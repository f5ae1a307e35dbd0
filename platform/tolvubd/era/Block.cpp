#include "era/Block.h"

#include "os/Crc32c.h"

namespace tolvubd::era {

bool Block::isSound(const BlockKind& kind, std::uint64_t place) const {
    const std::uint32_t stored = number32(0);
    return number64(kind.placeOffset) == place &&
           (~os::crc32c(bytes.subspan(sizeof stored)) ^ kind.salt) == stored;
}

} // namespace tolvubd::era
