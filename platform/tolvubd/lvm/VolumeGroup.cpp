#include "lvm/VolumeGroup.h"

#include "lvm/Bytes.h"

#include <algorithm>
#include <string_view>
#include <utility>

namespace tolvubd::lvm {
namespace {

/// The most sectors a device can have. Thanks to this limit no calculation below can overflow.
constexpr std::uint64_t mostSectors = std::uint64_t{1} << 48U;

struct Segment {
    std::uint64_t start = 0; ///< in extents, like the other numbers
    std::uint64_t length = 0;
    std::string_view physicalVolume;
    std::uint64_t offset = 0;
};

std::uint64_t numberIn(const Section& section, std::string_view name) {
    const auto number = section.number(name);
    if (!number || *number > mostSectors) {
        failOn("no number in " + std::string(name));
    }
    return *number;
}

std::string idOf(const Section& section) {
    const auto text = section.string("id");
    if (!text) {
        failOn("something has no UUID");
    }
    std::string id(*text);
    std::erase(id, '-');
    return id;
}

const Section& sectionIn(const Section& section, std::string_view name) {
    const Section* const found = section.find(name);
    if (found == nullptr) {
        failOn("nothing of " + std::string(name));
    }
    return *found;
}

bool isLinear(const Section& segment) {
    return segment.string("type") == "striped" && segment.number("stripe_count") == 1;
}

Segment readSegment(const Section& segment) {
    const auto stripes = segment.values.find("stripes");
    if (stripes == segment.values.end() || stripes->second.size() != 2 || !stripes->second[0].isQuoted) {
        failOn("a segment that lies nowhere");
    }
    const auto offset = numberOf(stripes->second[1]);
    if (!offset) {
        failOn("a segment without a place");
    }
    return {numberIn(segment, "start_extent"), numberIn(segment, "extent_count"), stripes->second[0].text,
            *offset};
}

/// The segments in the order of the volume, checked to have no gaps; none if one of them isn't linear.
std::optional<std::vector<Segment>> segmentsOf(const Section& volume) {
    std::vector<Segment> segments;
    for (const auto& [name, section] : volume.sections) {
        if (!isLinear(section)) {
            return std::nullopt;
        }
        segments.push_back(readSegment(section));
    }
    std::ranges::sort(segments, {}, &Segment::start);
    std::uint64_t end = 0;
    for (const Segment& segment : segments) {
        if (segment.start != end || segment.length == 0) {
            failOn("the segments of a volume don't follow each other");
        }
        end += segment.length;
    }
    if (segments.empty() || segments.size() != numberIn(volume, "segment_count")) {
        failOn("a volume has lost segments");
    }
    return segments;
}

/// Whether a segment refers to the volume of this name. `stripes` is skipped, because it names physical
/// volumes.
bool refersTo(const Section& segment, std::string_view volume) {
    return std::ranges::any_of(segment.values, [&](const auto& value) {
        return value.first != "type" && value.first != "stripes" && segment.has(value.first, volume);
    });
}

/// Whether another volume refers to this one. The metadata of a volume with snapshots doesn't mention them,
/// but the kernel's table of such a volume isn't linear any more.
bool isPartOfAnother(const Section& volumes, std::string_view name) {
    return std::ranges::any_of(volumes.sections, [&](const auto& volume) {
        return std::ranges::any_of(volume.second.sections,
                                   [&](const auto& segment) { return refersTo(segment.second, name); });
    });
}

/// None if the segment isn't on one of the devices.
std::optional<VolumePiece> pieceOf(const Segment& segment, const Section& group,
                                   const PhysicalDevices& devices) {
    const Section* const physical = sectionIn(group, "physical_volumes").find(segment.physicalVolume);
    if (physical == nullptr || physical->has("flags", "MISSING") || physical->has("status", "MISSING")) {
        return std::nullopt;
    }
    const auto device = devices.find(idOf(*physical));
    if (device == devices.end()) {
        return std::nullopt;
    }
    const std::uint64_t extents = numberIn(*physical, "pe_count");
    if (segment.offset > extents || segment.length > extents - segment.offset) {
        failOn("a segment behind the end of its physical volume");
    }
    const std::uint64_t extent = numberIn(group, "extent_size");
    if (extent == 0 || std::max(segment.start + segment.length, extents) > mostSectors / extent) {
        failOn("extents that no device has");
    }
    return VolumePiece{segment.start * extent, segment.length * extent, device->second,
                       numberIn(*physical, "pe_start") + segment.offset * extent};
}

} // namespace

VolumeGroup::VolumeGroup(std::string content) : text(std::move(content)), whole(parseMetadata(text)) {
    if (whole.string("contents") != "Text Format Volume Group" || whole.number("version") != 1 ||
        whole.sections.size() != 1) {
        failOn("not a volume group");
    }
    group = &whole.sections.begin()->second;
}

std::string VolumeGroup::uuid() const {
    return idOf(*group);
}

std::uint64_t VolumeGroup::sequence() const {
    return numberIn(*group, "seqno");
}

std::optional<std::vector<VolumePiece>> VolumeGroup::piecesOf(const std::string& volume,
                                                              const PhysicalDevices& devices) const {
    const Section* const volumes = group->find("logical_volumes"); // absent until the first volume is created
    if (volumes == nullptr) {
        return std::nullopt;
    }
    const auto found = std::ranges::find_if(
        volumes->sections, [&](const auto& candidate) { return idOf(candidate.second) == volume; });
    if (found == volumes->sections.end() || !found->second.has("status", "VISIBLE") ||
        isPartOfAnother(*volumes, found->first)) {
        return std::nullopt;
    }
    const auto segments = segmentsOf(found->second);
    if (!segments) {
        return std::nullopt;
    }
    std::vector<VolumePiece> pieces;
    for (const Segment& segment : *segments) {
        const auto piece = pieceOf(segment, *group, devices);
        if (!piece) {
            return std::nullopt;
        }
        append(pieces, *piece);
    }
    return pieces;
}

} // namespace tolvubd::lvm
