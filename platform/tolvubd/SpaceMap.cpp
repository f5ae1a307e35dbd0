#include "SpaceMap.h"

namespace tolvubd {

std::optional<SpaceMap> readSpaceMap(const os::FileDescriptor& image, std::uint64_t size) {
    std::optional<SpaceMap> map = readExtSpace(image, size);
    return map ? std::move(map) : readXfsSpace(image, size);
}

} // namespace tolvubd
