#include "lvm/PhysicalVolume.h"

#include "lvm/Bytes.h"

#include <string_view>

namespace tolvubd::lvm {
namespace {

constexpr std::size_t labelledSectors = 4;

namespace label {
constexpr std::string_view name = "LABELONE";
constexpr std::size_t sector = 8;
constexpr std::size_t sum = 16;
constexpr std::size_t summed = 20;
constexpr std::size_t header = 20;
constexpr std::size_t type = 24;
constexpr std::string_view typeName = "LVM2 001";
constexpr std::size_t size = 32;
} // namespace label

namespace header {
constexpr std::size_t uuidSize = 32;
constexpr std::size_t areas = 40;
} // namespace header

/// LVM makes at most two, one at each end of the device.
constexpr std::size_t mostAreas = 2;
constexpr std::size_t placeSize = 16;

bool isLabel(std::string_view bytes, std::size_t sector) {
    return bytes.starts_with(label::name) && littleEndian<std::uint64_t>(bytes, label::sector) == sector &&
           bytes.substr(label::type).starts_with(label::typeName) &&
           checksum(bytes.substr(label::summed)) == littleEndian<std::uint32_t>(bytes, label::sum);
}

std::string_view findLabel(std::string_view sectors) {
    for (std::size_t sector = 0; sector < labelledSectors; ++sector) {
        const std::string_view bytes = sectors.substr(sector * sectorSize, sectorSize);
        if (isLabel(bytes, sector)) {
            return bytes;
        }
    }
    failOn("no label");
}

/// Removes a list of places, with the entry that ends it, from the front of `bytes`.
std::vector<Place> takePlaces(std::string_view& bytes) {
    std::vector<Place> places;
    while (bytes.size() >= placeSize) {
        const Place place{littleEndian<std::uint64_t>(bytes, 0), littleEndian<std::uint64_t>(bytes, 8)};
        bytes.remove_prefix(placeSize);
        if (place.offset == 0) {
            return places;
        }
        places.push_back(place);
    }
    failOn("a list in the label has no end");
}

} // namespace

PhysicalVolume readPhysicalVolume(const os::FileDescriptor& device) {
    const std::string sectors = readBytes(device, 0, labelledSectors * sectorSize);
    const std::string_view sector = findLabel(sectors);
    const std::uint64_t start = littleEndian<std::uint32_t>(sector, label::header);
    if (start < label::size || start + header::areas > sector.size()) {
        failOn("a label without its header");
    }
    std::string_view rest = sector.substr(start);
    PhysicalVolume volume{std::string(rest.substr(0, header::uuidSize)), {}};
    rest.remove_prefix(header::areas);
    takePlaces(rest);
    volume.metadataAreas = takePlaces(rest);
    if (volume.metadataAreas.size() > mostAreas) {
        failOn("a device with too many areas");
    }
    return volume;
}

} // namespace tolvubd::lvm
