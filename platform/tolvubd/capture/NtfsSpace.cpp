#include "Extents.h"
#include "Fields.h"
#include "capture/SpaceMap.h"

#include <algorithm>
#include <bit>

namespace tolvubd {

namespace {

constexpr std::size_t bootSectorSize = 512;
constexpr std::uint64_t ntfsName = 0x202020205346544E; // "NTFS" and four blanks
constexpr std::uint64_t fileMagic = 0x454C4946;        // "FILE"
constexpr std::uint64_t bitmapRecord = 6;
constexpr std::uint64_t bitsInByte = 8;
/// A record is protected in pieces of this size, whatever the sector size is.
constexpr std::size_t pieceSize = 512;

namespace boot {
constexpr Field name{3, 8};
constexpr Field sectorSize{11, 2};
constexpr Field clusterSectors{13, 1};
constexpr Field sectors{40, 8};
constexpr Field recordsCluster{48, 8};
constexpr Field recordSize{64, 1}; ///< in clusters; if negative, the exponent of a power of two bytes
} // namespace boot

namespace record {
constexpr Field magic{0, 4};
constexpr Field updateSequence{4, 2}; ///< offset of the original last bytes of the pieces
constexpr Field updateCount{6, 2};
constexpr Field attributes{20, 2};
constexpr Field flags{22, 2};
constexpr Field base{32, 8}; ///< the base record that this one continues; 0 for a base record
constexpr std::uint64_t inUse = 1;
} // namespace record

namespace attribute {
constexpr std::size_t nonResidentHeaderSize = 64; ///< size of a non-resident attribute's header
constexpr Field type{0, 4};
constexpr Field length{4, 4};
constexpr Field isNonResident{8, 1};
constexpr Field nameLength{9, 1};
constexpr Field flags{12, 2}; ///< compressed, encrypted, sparse
constexpr Field firstCluster{16, 8};
constexpr Field runs{32, 2};
constexpr Field size{48, 8};
constexpr Field written{56, 8}; ///< the initialised size: bytes after it read as zeros
constexpr std::uint64_t data = 0x80;
constexpr std::uint64_t end = 0xFFFFFFFF;
} // namespace attribute

struct Geometry {
    std::uint64_t clusterSize = 0;
    std::uint64_t clusters = 0;
    std::uint64_t recordSize = 0;
    std::uint64_t recordsCluster = 0;
};

struct Run {
    std::uint64_t cluster = 0;
    std::uint64_t count = 0;
};

/// The location of a file's data, and its size.
struct Content {
    std::vector<Run> runs;
    std::uint64_t size = 0;
    std::uint64_t written = 0;
};

/// Decodes a one-byte number: a count of `unit` if positive, the exponent of a power of two if negative.
/// Returns 0 if that is too large.
std::uint64_t decodeSizeCode(std::uint64_t number, std::uint64_t unit) {
    constexpr std::uint64_t mostPositive = 128;
    constexpr std::uint64_t modulus = 256;
    constexpr std::uint64_t highestPower = 21;
    if (number <= mostPositive) {
        return number * unit;
    }
    return modulus - number <= highestPower ? std::uint64_t{1} << (modulus - number) : 0;
}

bool isPowerWithin(std::uint64_t number, std::uint64_t least, std::uint64_t most) {
    return std::has_single_bit(number) && number >= least && number <= most;
}

/// A negative number of sectors per cluster means a power of two of sectors; a negative record size means a
/// power of two of bytes.
std::optional<Geometry> readGeometry(const os::FileDescriptor& image, std::uint64_t size) {
    constexpr std::uint64_t largestSector = 4096;
    constexpr std::uint64_t largestCluster = std::uint64_t{2} << 20;
    constexpr std::uint64_t largestRecord = 65536;
    const Fields fields(image, 0, bootSectorSize);
    if (!fields || fields.little(boot::name) != ntfsName) {
        return std::nullopt;
    }
    const std::uint64_t sectorSize = fields.little(boot::sectorSize);
    const std::uint64_t clusterSectors = decodeSizeCode(fields.little(boot::clusterSectors), 1);
    Geometry geometry;
    geometry.clusterSize = sectorSize * clusterSectors;
    geometry.recordSize = decodeSizeCode(fields.little(boot::recordSize), geometry.clusterSize);
    geometry.recordsCluster = fields.little(boot::recordsCluster);
    if (!isPowerWithin(sectorSize, bootSectorSize, largestSector) ||
        !isPowerWithin(geometry.clusterSize, sectorSize, largestCluster) ||
        !isPowerWithin(geometry.recordSize, pieceSize, largestRecord)) {
        return std::nullopt;
    }
    geometry.clusters = fields.little(boot::sectors) / clusterSectors;
    const bool isSound =
        geometry.clusters <= size / geometry.clusterSize && geometry.recordsCluster < geometry.clusters;
    return isSound ? std::optional(geometry) : std::nullopt;
}

/// Restores the last two bytes of each piece. On disk an update number replaces them, which shows whether the
/// whole record was written.
bool repair(Fields& fields) {
    const std::size_t updateSequence = fields.little(record::updateSequence);
    const std::size_t pieces = fields.size() / pieceSize;
    const std::size_t width = 2;
    if (fields.little(record::updateCount) != pieces + 1 ||
        updateSequence + (pieces + 1) * width > pieceSize - width) {
        return false;
    }
    for (std::size_t piece = 1; piece <= pieces; ++piece) {
        const std::size_t end = piece * pieceSize - width;
        if (fields.little({end, width}) != fields.little({updateSequence, width})) {
            return false;
        }
        fields.set(end, fields.byte(updateSequence + piece * width));
        fields.set(end + 1, fields.byte(updateSequence + piece * width + 1));
    }
    return true;
}

bool isRecord(Fields& fields) {
    return fields && fields.little(record::magic) == fileMagic && repair(fields) &&
           (fields.little(record::flags) & record::inUse) != 0 && fields.little(record::base) == 0;
}

/// A signed little-endian number of a few bytes.
std::int64_t signedLittle(const Fields& fields, Field field) {
    constexpr unsigned bits = 64;
    const unsigned unused = bits - static_cast<unsigned>(field.width * bitsInByte);
    return static_cast<std::int64_t>(fields.little(field) << unused) >> unused;
}

/// Decodes a file's runs, each a count of clusters and the distance from the start of the run before. None if
/// a run is a hole or invalid.
std::optional<std::vector<Run>> readRuns(const Fields& fields, std::size_t from, std::size_t end,
                                         std::uint64_t clusters) {
    constexpr unsigned half = 4;
    constexpr std::uint8_t lowHalf = 0xF;
    constexpr std::size_t widest = 7; // in bytes; cluster numbers are shorter
    std::vector<Run> runs;
    std::int64_t cluster = 0;
    for (std::size_t at = from; at < end && fields.byte(at) != 0;) {
        const std::size_t countWidth = fields.byte(at) & lowHalf;
        const std::size_t distanceWidth = fields.byte(at) >> half;
        const std::size_t next = at + 1 + countWidth + distanceWidth;
        if (countWidth == 0 || countWidth > widest || distanceWidth == 0 || distanceWidth > widest ||
            next > end) {
            return std::nullopt;
        }
        const std::uint64_t count = fields.little({at + 1, countWidth});
        cluster += signedLittle(fields, {at + 1 + countWidth, distanceWidth});
        if (cluster < 0 || static_cast<std::uint64_t>(cluster) > clusters ||
            count > clusters - static_cast<std::uint64_t>(cluster)) {
            return std::nullopt;
        }
        runs.push_back({static_cast<std::uint64_t>(cluster), count});
        at = next;
    }
    return runs;
}

std::optional<Content> readContent(const Fields& fields, std::size_t at, std::size_t length,
                                   std::uint64_t clusters) {
    const auto value = [&](Field field) { return fields.little({at + field.offset, field.width}); };
    const std::uint64_t runs = length < attribute::nonResidentHeaderSize ? length : value(attribute::runs);
    if (runs >= length || value(attribute::isNonResident) != 1 || value(attribute::flags) != 0 ||
        value(attribute::firstCluster) != 0) {
        return std::nullopt;
    }
    const auto found = readRuns(fields, at + runs, at + length, clusters);
    return found ? std::optional(Content{*found, value(attribute::size), value(attribute::written)})
                 : std::nullopt;
}

/// The data of the file that has this record. Runs that are listed in other records are left out.
std::optional<Content> findContent(const Fields& fields, std::uint64_t clusters) {
    std::size_t at = fields.little(record::attributes);
    while (at + attribute::firstCluster.offset <= fields.size()) {
        const auto value = [&](Field field) { return fields.little({at + field.offset, field.width}); };
        const std::uint64_t type = value(attribute::type);
        const std::uint64_t length = value(attribute::length);
        if (type == attribute::end || length < attribute::firstCluster.offset ||
            length > fields.size() - at) {
            return std::nullopt;
        }
        if (type == attribute::data && value(attribute::nameLength) == 0) {
            return readContent(fields, at, length, clusters);
        }
        at += length;
    }
    return std::nullopt;
}

/// The position on the volume of a byte of a file, and how many bytes follow it there. None after the last
/// run.
std::optional<Extent> locate(const Content& content, std::uint64_t offset, std::uint64_t clusterSize) {
    for (const Run& run : content.runs) {
        const std::uint64_t length = run.count * clusterSize;
        if (offset < length) {
            return Extent{run.cluster * clusterSize + offset, length - offset};
        }
        offset -= length;
    }
    return std::nullopt;
}

std::optional<Fields> readRecord(const os::FileDescriptor& image, const Geometry& geometry,
                                 std::uint64_t offset) {
    Fields fields(image, offset, geometry.recordSize);
    return isRecord(fields) ? std::optional(std::move(fields)) : std::nullopt;
}

/// The data of the file $Bitmap. Its record is found through the runs of the $MFT, which holds all records.
std::optional<Content> findBitmap(const os::FileDescriptor& image, const Geometry& geometry) {
    const auto first = readRecord(image, geometry, geometry.recordsCluster * geometry.clusterSize);
    const auto records = first ? findContent(*first, geometry.clusters) : std::nullopt;
    const auto place =
        records ? locate(*records, bitmapRecord * geometry.recordSize, geometry.clusterSize) : std::nullopt;
    if (!place || place->length < geometry.recordSize) {
        return std::nullopt;
    }
    const auto fields = readRecord(image, geometry, place->offset);
    const auto bitmap = fields ? findContent(*fields, geometry.clusters) : std::nullopt;
    const bool isWhole = bitmap && bitmap->written == bitmap->size &&
                         bitmap->size >= (geometry.clusters + bitsInByte - 1) / bitsInByte;
    return isWhole ? bitmap : std::nullopt;
}

} // namespace

/// Reads $Bitmap run by run, with at most a mebibyte of it in memory.
std::optional<SpaceMap> readNtfsSpace(const os::FileDescriptor& image, std::uint64_t size) {
    constexpr std::uint64_t mostAtOnce = std::uint64_t{1} << 20;
    const std::optional<Geometry> geometry = readGeometry(image, size);
    const std::optional<Content> bitmap = geometry ? findBitmap(image, *geometry) : std::nullopt;
    if (!bitmap) {
        return std::nullopt;
    }
    SpaceMap map{geometry->clusterSize, std::vector<bool>(geometry->clusters)};
    for (std::uint64_t cluster = 0; cluster < geometry->clusters;) {
        const auto place = locate(*bitmap, cluster / bitsInByte, geometry->clusterSize);
        if (!place) {
            return std::nullopt;
        }
        const Fields bytes(image, place->offset, std::min(place->length, mostAtOnce));
        if (!bytes) {
            return std::nullopt;
        }
        const std::uint64_t end = std::min(cluster + bytes.size() * bitsInByte, geometry->clusters);
        for (std::uint64_t first = cluster; cluster < end; ++cluster) {
            const std::uint64_t bit = cluster - first;
            map.used[cluster] = (bytes.byte(bit / bitsInByte) >> bit % bitsInByte & 1U) != 0;
        }
    }
    return map;
}

} // namespace tolvubd
