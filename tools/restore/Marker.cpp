#include "Marker.h"

#include "os/Crc32c.h"

#include <algorithm>
#include <string_view>

namespace restore {

namespace {

constexpr std::string_view magic = "BEKREST1";
constexpr std::size_t sequenceAt = 8;
constexpr std::size_t positionAt = 16;
constexpr std::size_t volumeBytesAt = 24;
constexpr std::size_t identityAt = 32;
constexpr std::size_t checksumAt = 36;

template <typename Number>
void put(std::span<std::byte> page, std::size_t at, Number number) {
    for (std::size_t index = 0; index < sizeof number; ++index) {
        page[at + index] = static_cast<std::byte>(number >> (8 * index));
    }
}

template <typename Number>
Number get(std::span<const std::byte> page, std::size_t at) {
    Number number = 0;
    for (std::size_t index = sizeof number; index-- > 0;) {
        number = static_cast<Number>(number << 8U | std::to_integer<Number>(page[at + index]));
    }
    return number;
}

std::optional<Marker> read(std::span<const std::byte> page) {
    const bool isOne = std::ranges::equal(std::as_bytes(std::span(magic)), page.first(magic.size())) &&
                       get<std::uint32_t>(page, checksumAt) == os::crc32c(page.first(checksumAt));
    if (!isOne) {
        return std::nullopt;
    }
    return Marker{get<std::uint64_t>(page, sequenceAt), get<std::uint64_t>(page, positionAt),
                  get<std::uint64_t>(page, volumeBytesAt), get<std::uint32_t>(page, identityAt)};
}

} // namespace

std::array<std::byte, Marker::pageBytes> Marker::bytes() const {
    std::array<std::byte, pageBytes> page{};
    std::ranges::copy(std::as_bytes(std::span(magic)), page.begin());
    put(page, sequenceAt, sequence);
    put(page, positionAt, position);
    put(page, volumeBytesAt, volumeBytes);
    put(page, identityAt, identity);
    put(page, checksumAt, os::crc32c(std::span<const std::byte>(page).first(checksumAt)));
    return page;
}

std::optional<Marker> Marker::find(std::span<const std::byte, areaBytes> area) {
    const std::optional<Marker> first = read(area.first<pageBytes>());
    const std::optional<Marker> second = read(area.last<pageBytes>());
    if (!first || !second) {
        return first ? first : second;
    }
    return first->sequence > second->sequence ? first : second;
}

} // namespace restore
