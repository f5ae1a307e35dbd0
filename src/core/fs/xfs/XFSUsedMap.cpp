#include "core/fs/xfs/XFSUsedMap.h"

#include "core/fs/Bits.h"

#include <algorithm>

namespace agent::core::fs {

namespace {

constexpr std::uint64_t byteBits = 8;

} // namespace

XFSUsedMap::XFSUsedMap(std::uint8_t* buffer, std::size_t bytes, std::uint64_t firstBlock)
    : buffer(buffer), bits(bytes * byteBits), first(firstBlock) {
    clearMap(buffer, bytes);
}

void XFSUsedMap::markFree(std::uint64_t block, std::uint64_t count) {
    const std::uint64_t begin = std::max(block, first) - first;
    const std::uint64_t end = std::clamp(block + count, first, endBlock()) - first;
    if (begin >= end) {
        return;
    }
    if (begin >= decided) {
        setBits(buffer, decided, begin - decided);
    } else {
        clearBits(buffer, begin, std::min(end, decided) - begin);
    }
    decided = std::max(decided, end);
}

void XFSUsedMap::finish(std::size_t bytes) {
    const std::uint64_t end = bytes * byteBits;
    if (end > decided) {
        setBits(buffer, decided, end - decided);
        decided = end;
    }
}

} // namespace agent::core::fs
