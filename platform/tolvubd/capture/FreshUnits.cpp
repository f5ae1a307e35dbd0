#include "capture/FreshUnits.h"

#include "CowFile.h"
#include "FileAccess.h"
#include "capture/SpaceMap.h"

#include <algorithm>
#include <fcntl.h>
#include <optional>

namespace tolvubd {

namespace {

/// Sets the flag of each piece that one of the extents touches.
void set(std::vector<bool>& flags, const std::vector<Extent>& extents, std::uint64_t pieceSize, bool value) {
    for (const Extent& extent : extents) {
        const std::uint64_t end =
            std::min<std::uint64_t>(flags.size(), (extent.end() + pieceSize - 1) / pieceSize);
        for (std::uint64_t piece = extent.offset / pieceSize; piece < end; ++piece) {
            flags[piece] = value;
        }
    }
}

std::optional<SpaceMap> readMap(const CaptureInfo& capture, std::uint64_t size) {
    return readSpaceMap(openFile(capture.path, O_RDONLY), size);
}

} // namespace

std::vector<bool> findFreshUnits(const CaptureInfo& before, const CaptureInfo& after,
                                 const std::vector<Extent>& closed, std::uint64_t size) {
    std::optional<SpaceMap> then = readMap(before, size);
    std::optional<SpaceMap> now = readMap(after, size);
    const bool isKnown =
        then && now && then->blockSize == now->blockSize && then->used.size() == now->used.size();
    std::vector<bool> fresh(cow::unitsOf(size), !isKnown);
    if (!isKnown) {
        return fresh;
    }
    set(then->used, before.ownFileExtents, then->blockSize, false);
    set(now->used, closed, now->blockSize, false);
    set(fresh, after.ownFileExtents, cow::unitSize, true);
    set(fresh, closed, cow::unitSize, false);
    for (std::uint64_t block = 0; block < now->used.size(); ++block) {
        if (now->used[block] && !then->used[block]) {
            set(fresh, {{block * now->blockSize, now->blockSize}}, cow::unitSize, true);
        }
    }
    return fresh;
}

} // namespace tolvubd
