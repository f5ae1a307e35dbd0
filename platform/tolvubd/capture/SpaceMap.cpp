#include "capture/SpaceMap.h"

namespace tolvubd {

std::optional<SpaceMap> readSpaceMap(const os::FileDescriptor& image, std::uint64_t size) {
    for (const auto& read : {readExtSpace, readXfsSpace, readNtfsSpace}) {
        if (std::optional<SpaceMap> map = read(image, size)) {
            return map;
        }
    }
    return std::nullopt;
}

} // namespace tolvubd
