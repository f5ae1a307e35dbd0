#include "os/SparseFile.h"

#include <algorithm>
#include <cerrno>
#include <unistd.h>

namespace os {

std::uint64_t holeLengthAt(int descriptor, std::uint64_t offset, std::uint64_t length) noexcept {
    const off_t end = ::lseek(descriptor, 0, SEEK_END);
    if (end < 0 || offset >= static_cast<std::uint64_t>(end)) {
        return 0;
    }
    const auto begin = static_cast<off_t>(offset);
    const off_t data = ::lseek(descriptor, begin, SEEK_DATA);
    if (data < 0 && errno != ENXIO) {
        return 0;
    }
    const off_t holeEnd = data < 0 ? end : std::clamp(data, begin, end);
    return std::min(static_cast<std::uint64_t>(holeEnd - begin), length);
}

Transfer readSkippingHoleAt(int descriptor, std::span<std::byte> into, std::uint64_t offset) noexcept {
    const std::uint64_t hole = holeLengthAt(descriptor, offset, into.size());
    std::fill_n(into.begin(), hole, std::byte{0});
    Transfer reading = readUpToAt(descriptor, into.subspan(hole), offset + hole);
    reading.bytes += hole;
    return reading;
}

} // namespace os
