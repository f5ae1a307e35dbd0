#include "lvm/MetadataArea.h"

#include "lvm/Bytes.h"

#include <algorithm>
#include <string_view>

namespace tolvubd::lvm {
namespace {

namespace header {
constexpr std::size_t sum = 0;
constexpr std::size_t summed = 4;
constexpr std::size_t magic = 4;
constexpr std::string_view magicText = " LVM2 x[5A%r0N*>";
constexpr std::size_t version = 20;
constexpr std::size_t start = 24;
constexpr std::size_t size = 32;
constexpr std::size_t textOffset = 40;
constexpr std::size_t textSize = 48;
constexpr std::size_t textSum = 56;
constexpr std::size_t textFlags = 60;
} // namespace header

constexpr std::uint32_t knownVersion = 1;
constexpr std::uint32_t ignored = 1;

void checkHeader(std::string_view bytes, const Place& area) {
    if (checksum(bytes.substr(header::summed)) != littleEndian<std::uint32_t>(bytes, header::sum) ||
        !bytes.substr(header::magic).starts_with(header::magicText) ||
        littleEndian<std::uint32_t>(bytes, header::version) != knownVersion ||
        littleEndian<std::uint64_t>(bytes, header::start) != area.offset ||
        littleEndian<std::uint64_t>(bytes, header::size) != area.size) {
        failOn("the header of an area isn't sound");
    }
}

/// The ring may wrap around within the text.
std::string readRing(const os::FileDescriptor& device, const Place& area, const Place& text) {
    if (text.offset < sectorSize || text.offset >= area.size || text.size > area.size - sectorSize ||
        text.size > largestText) {
        failOn("a text outside its area");
    }
    const std::uint64_t beforeEnd = std::min(text.size, area.size - text.offset);
    std::string bytes = readBytes(device, area.offset + text.offset, beforeEnd);
    if (beforeEnd < text.size) {
        bytes += readBytes(device, area.offset + sectorSize, text.size - beforeEnd);
    }
    return bytes;
}

} // namespace

std::optional<std::string> readMetadata(const os::FileDescriptor& device, const Place& area) {
    const std::string bytes = readBytes(device, area.offset, sectorSize);
    checkHeader(bytes, area);
    if ((littleEndian<std::uint32_t>(bytes, header::textFlags) & ignored) != 0) {
        return std::nullopt;
    }
    const Place place{littleEndian<std::uint64_t>(bytes, header::textOffset),
                      littleEndian<std::uint64_t>(bytes, header::textSize)};
    if (place.offset == 0) {
        return "";
    }
    std::string text = readRing(device, area, place);
    if (checksum(text) != littleEndian<std::uint32_t>(bytes, header::textSum)) {
        failOn("the checksum of a text is wrong");
    }
    if (text.ends_with('\0')) {
        text.pop_back();
    }
    return text;
}

} // namespace tolvubd::lvm
