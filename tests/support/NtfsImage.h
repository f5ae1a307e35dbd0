#pragma once

#include "support/MemoryVolume.h"

#include <algorithm>
#include <cstdint>
#include <string_view>
#include <utility>
#include <vector>

namespace agent::test {

/// The on-disk structures of NTFS that say which clusters are used, in a volume in memory: the boot sector,
/// and a master file table (MFT) with its own record and the bitmap's. Only the clusters of these are in use.
class NtfsImage {
public:
    struct Geometry {
        std::uint32_t bytesPerSector = 512;
        std::uint32_t sectorsPerCluster = 8;
        std::uint64_t clusterCount = 10'000;
        std::uint32_t recordSize = 1024;
    };
    using Run = std::pair<std::int64_t, std::int64_t>; ///< first cluster of the volume, and count
    using Runs = std::vector<Run>;
    using Content = std::vector<std::uint8_t>;

    /// Fields of a non-resident attribute.
    struct Data {
        std::uint64_t size = 1UL << 30U;
        std::uint64_t initialized = 1UL << 30U;
        std::uint16_t flags = 0;
        std::uint8_t nameLength = 0;
        std::uint64_t lowestVcn = 0;
    };

    static constexpr std::uint32_t attributeList = 0x20;
    static constexpr std::uint32_t fileName = 0x30;
    static constexpr std::uint32_t data = 0x80;
    static constexpr std::uint32_t end = 0xFFFFFFFF;
    static constexpr std::uint64_t mftLcn = 4;
    static constexpr std::uint64_t bitmapRecord = 6;

    explicit NtfsImage(Geometry geometry)
        : geometry(geometry),
          clusterBytes(geometry.bytesPerSector * geometry.sectorsPerCluster),
          volume((geometry.clusterCount + 1) * clusterBytes),
          table{{mftLcn, std::max<std::int64_t>(1, 64L * 1024 / clusterBytes)}} {
        constexpr std::string_view name = "NTFS    ";
        volume.write(3, {reinterpret_cast<const std::uint8_t*>(name.data()), name.size()});
        volume.writeLittle(11, geometry.bytesPerSector, 2);
        volume.writeLittle(13, geometry.sectorsPerCluster, 1);
        volume.writeLittle(40, geometry.clusterCount * geometry.sectorsPerCluster, 8);
        volume.writeLittle(48, mftLcn, 8);
        setRecordSize(geometry.recordSize);
        setTable(table);
        const auto bytes = static_cast<std::int64_t>((geometry.clusterCount + 7) / 8);
        setBitmap({{mftLcn + table[0].second, (bytes + clusterBytes - 1) / clusterBytes}});
    }

    /// Stored as a number of clusters if at least one cluster long, else as a power of two.
    void setRecordSize(std::uint32_t bytes) {
        std::uint8_t exponent = 0;
        while (1U << exponent < bytes) {
            ++exponent;
        }
        volume.writeLittle(64, bytes >= clusterBytes ? bytes / clusterBytes : 0x100U - exponent, 1);
    }

    /// Sets where the MFT is from now on. Existing records are not moved.
    void setTable(const Runs& runs) {
        table = runs;
        setRecord(0, {dataOf(runs)});
    }

    /// Sets where the bitmap is from now on. It marks its own clusters, those of the MFT, and the boot
    /// sector's.
    void setBitmap(const Runs& runs) {
        bitmap = runs;
        setRecord(bitmapRecord, {dataOf(runs)});
        useAll();
    }

    void useAll() {
        setUsed(0);
        for (const Runs& runs : {table, bitmap}) {
            for (const auto& [first, count] : runs) {
                for (std::int64_t cluster = first; cluster < first + count; ++cluster) {
                    setUsed(static_cast<std::uint64_t>(cluster));
                }
            }
        }
    }

    void setUsed(std::uint64_t cluster) { byteOf(cluster) |= static_cast<std::uint8_t>(1U << (cluster % 8)); }
    void free(std::uint64_t cluster) { byteOf(cluster) &= static_cast<std::uint8_t>(~(1U << (cluster % 8))); }

    /// Writes a record with these attributes. Newer NTFS versions store the record's number in it
    /// (`knowsNumber`). `base` is the base record that this one extends.
    void setRecord(std::uint64_t number, const std::vector<Content>& attributes, std::uint64_t base = 0,
                   bool knowsNumber = true) {
        Content record(geometry.recordSize);
        put(record, 0, 0x454C4946, 4);
        const std::size_t sequence = knowsNumber ? 48 : 42;
        put(record, 4, sequence, 2);
        put(record, 6, geometry.recordSize / 512 + 1, 2);
        const std::size_t first = (sequence + 2 * (geometry.recordSize / std::size_t{512} + 1) + 7) / 8 * 8;
        put(record, 20, first, 2);
        put(record, 32, base | std::uint64_t{9} << 48U, 8); // with a sequence number in the upper bits
        if (knowsNumber) {
            put(record, 44, number, 4);
        }
        std::size_t position = first;
        for (const Content& attribute : attributes) {
            std::copy(attribute.begin(), attribute.end(), record.begin() + static_cast<long>(position));
            position += attribute.size();
        }
        if (position + 4 <= record.size()) {
            put(record, position, end, 4);
        }
        applyUpdateSequence(record, sequence);
        volume.write(placeOf(number), record);
    }

    /// The offset of a record on the volume.
    [[nodiscard]] std::uint64_t placeOf(std::uint64_t record) const {
        return placeIn(table, record * geometry.recordSize);
    }

    /// A non-resident data attribute with these runs.
    static Content dataOf(const Runs& runs) { return dataOf(runs, Data{}); }
    static Content dataOf(const Runs& runs, const Data& fields) {
        return withRunList(runListOf(runs), fields);
    }

    /// The same with the bytes of a run list as given. The attribute ends where the list ends.
    static Content withRunList(const Content& list) { return withRunList(list, Data{}); }
    static Content withRunList(const Content& list, const Data& fields) {
        Content attribute(64);
        attribute.insert(attribute.end(), list.begin(), list.end());
        put(attribute, 0, data, 4);
        put(attribute, 4, attribute.size(), 4);
        put(attribute, 8, 1, 1);
        put(attribute, 9, fields.nameLength, 1);
        put(attribute, 12, fields.flags, 2);
        put(attribute, 16, fields.lowestVcn, 8);
        put(attribute, 32, 64, 2);
        put(attribute, 48, fields.size, 8);
        put(attribute, 56, fields.initialized, 8);
        return attribute;
    }

    static Content resident(std::uint32_t type, const Content& value) {
        Content attribute(24);
        attribute.insert(attribute.end(), value.begin(), value.end());
        attribute.resize((attribute.size() + 7) / 8 * 8);
        put(attribute, 0, type, 4);
        put(attribute, 4, attribute.size(), 4);
        put(attribute, 16, value.size(), 4);
        put(attribute, 20, 24, 2);
        return attribute;
    }

    struct ListEntry {
        std::uint32_t type;
        std::uint64_t record;
        std::uint16_t length = 32;
    };

    static Content attributeListOf(const std::vector<ListEntry>& entries) {
        Content value;
        for (const ListEntry& entry : entries) {
            Content bytes(32);
            put(bytes, 0, entry.type, 4);
            put(bytes, 4, entry.length, 2);
            put(bytes, 16, entry.record | std::uint64_t{7} << 48U, 8); // with a sequence number
            value.insert(value.end(), bytes.begin(), bytes.end());
        }
        return resident(attributeList, value);
    }

    /// Encodes a run list, padded to a multiple of 8 bytes.
    static Content runListOf(const Runs& runs) {
        Content list;
        std::int64_t previous = 0;
        for (const auto& [lcn, length] : runs) {
            const Content lengthBytes = number(length);
            const Content offsetBytes = number(lcn - previous);
            previous = lcn;
            list.push_back(static_cast<std::uint8_t>(lengthBytes.size() | offsetBytes.size() << 4U));
            list.insert(list.end(), lengthBytes.begin(), lengthBytes.end());
            list.insert(list.end(), offsetBytes.begin(), offsetBytes.end());
        }
        list.resize(list.size() / 8 * 8 + 8);
        return list;
    }

    static void put(Content& bytes, std::size_t offset, std::uint64_t value, unsigned width) {
        for (unsigned i = 0; i < width; ++i) {
            bytes[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
        }
    }

    /// Applies the update sequence: saves the last two bytes of each sector in the array and replaces them by
    /// the update sequence number.
    static void applyUpdateSequence(Content& record, std::size_t sequence) {
        constexpr std::uint16_t update = 0x1234;
        put(record, sequence, update, 2);
        for (std::size_t sector = 1; sector * 512 <= record.size(); ++sector) {
            const std::size_t last = sector * 512 - 2;
            record[sequence + 2 * sector] = record[last];
            record[sequence + 2 * sector + 1] = record[last + 1];
            put(record, last, update, 2);
        }
    }

    Geometry geometry;
    std::uint32_t clusterBytes;
    MemoryVolume volume;
    Runs table;
    Runs bitmap;

private:
    /// The shortest signed little-endian encoding.
    static Content number(std::int64_t value) {
        Content bytes;
        do {
            bytes.push_back(static_cast<std::uint8_t>(value));
            value >>= 8;
        } while (value != ((bytes.back() & 0x80) != 0 ? -1 : 0));
        return bytes;
    }

    [[nodiscard]] std::uint64_t placeIn(const Runs& runs, std::uint64_t offset) const {
        for (const auto& [lcn, length] : runs) {
            const std::uint64_t bytes = static_cast<std::uint64_t>(length) * clusterBytes;
            if (offset < bytes) {
                return static_cast<std::uint64_t>(lcn) * clusterBytes + offset;
            }
            offset -= bytes;
        }
        return volume.size + offset; // past the end of the volume, where nothing is read
    }

    std::uint8_t& byteOf(std::uint64_t cluster) { return volume.at(placeIn(bitmap, cluster / 8)); }
};

} // namespace agent::test
