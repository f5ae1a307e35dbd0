#include "lvm/Bytes.h"
#include "lvm/LogicalVolume.h"
#include "lvm/VolumeSearch.h"
#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>
#include <vector>

/// Arbitrary bytes as a physical volume: they must be refused, or each piece of a volume must be valid. An
/// input is the sector of the label, the header of a metadata area and the rest of the area. Checksums are
/// corrected, so that the fuzzer gets past them.
namespace {

using tolvubd::lvm::checksum;
using tolvubd::lvm::littleEndian;

constexpr std::size_t sector = 512;
constexpr std::size_t area = 4096;
constexpr std::size_t mostVolumes = 16;
constexpr dev_t device = 7;

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

void put(std::string& image, std::size_t offset, std::uint32_t number) {
    for (std::size_t index = 0; index < sizeof(number); ++index, number >>= 8U) {
        image[offset + index] = static_cast<char>(number & 0xffU);
    }
}

/// The checksum of the text that the header points to, in one part or two; std::nullopt if it isn't in the
/// image.
std::optional<std::uint32_t> textSum(const std::string& image) {
    const auto areaSize = littleEndian<std::uint64_t>(image, area + 32);
    const auto offset = littleEndian<std::uint64_t>(image, area + 40);
    const auto size = littleEndian<std::uint64_t>(image, area + 48);
    if (areaSize > image.size() - area || offset >= areaSize || size > areaSize - sector) {
        return std::nullopt;
    }
    const std::size_t beforeEnd = std::min(size, areaSize - offset);
    const std::string_view bytes = image;
    return checksum(bytes.substr(area + sector, size - beforeEnd),
                    checksum(bytes.substr(area + offset, beforeEnd)));
}

std::string makeImage(std::string_view input) {
    std::string image(area + sector, '\0');
    image.replace(sector, sector, std::string(input.substr(0, sector)));
    image.replace(area, sector, std::string(input.substr(sector, sector)));
    image += input.substr(2 * sector);
    if (const auto sum = textSum(image)) {
        put(image, area + 56, *sum);
    }
    put(image, area, checksum(std::string_view(image).substr(area + 4, sector - 4)));
    put(image, sector + 16, checksum(std::string_view(image).substr(sector + 20, sector - 20)));
    return image;
}

/// The UUIDs after `id = `, without dashes. The first one is the group's.
std::vector<std::string> idsIn(const std::string& image) {
    constexpr std::string_view key = "id = \"";
    std::vector<std::string> ids;
    std::size_t place = image.find(key, area);
    while (place != std::string::npos && ids.size() <= mostVolumes) {
        place += key.size();
        std::string id = image.substr(place, image.find('"', place) - place);
        std::erase(id, '-');
        ids.push_back(id);
        place = image.find(key, place);
    }
    return ids;
}

void search(const std::string& uuid, const std::vector<tolvubd::lvm::OpenDevice>& devices) {
    try {
        const auto pieces = tolvubd::lvm::findLogicalVolume(uuid, devices);
        std::uint64_t end = 0;
        for (const tolvubd::VolumePiece& piece : pieces.value_or(std::vector<tolvubd::VolumePiece>())) {
            require(piece.start == end && piece.length > 0 && piece.device == device);
            end += piece.length;
            require(piece.offset + piece.length > piece.offset && end > piece.start);
        }
        require(!pieces || end > 0);
    } catch (const std::system_error& error) {
        require(error.code().value() == EBADMSG);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2 * sector) {
        return 0;
    }
    const std::string image = makeImage({reinterpret_cast<const char*>(data), size});
    std::vector<tolvubd::lvm::OpenDevice> devices;
    devices.push_back({device, os::FileDescriptor(::memfd_create("volume", MFD_CLOEXEC))});
    require(os::writeAllAt(devices.front().file.get(), std::as_bytes(std::span(image)), 0));
    const std::vector<std::string> ids = idsIn(image);
    for (const std::string& id : ids) {
        search("LVM-" + ids.front() + id, devices);
    }
    search("LVM-" + std::string(64, 'a'), devices);
    return 0;
}
