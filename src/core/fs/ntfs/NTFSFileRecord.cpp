#include "core/fs/ntfs/NTFSFileRecord.h"

#include "core/fs/ntfs/NTFSAttributeCursor.h"
#include "core/fs/ntfs/NTFSError.h"
#include "core/fs/ntfs/NTFSLayout.h"
#include "core/fs/ntfs/NTFSRunReader.h"

#include <cstddef>
#include <utility>

namespace agent::core::fs {

namespace {

namespace attribute = ntfs_layout::attribute;
namespace list_entry = ntfs_layout::list_entry;

constexpr std::uint64_t maxListBytes = 256UL * 1024; // the format's limit, in bytes
constexpr std::size_t maxRuns = 1024UL * 1024;

std::vector<std::uint8_t> copyOf(Bytes bytes) {
    return {bytes.begin(), bytes.end()};
}

void requireList(bool holds, const char* reason) {
    if (!holds) {
        throw NTFSError{reason};
    }
}

} // namespace

NTFSFileRecord::NTFSFileRecord(const NTFSVolume& volume) : volume(volume), own(volume.files.recordSize()) {}

bool NTFSFileRecord::read(std::uint64_t wanted) {
    number = wanted;
    return volume.files.readInode(number, own) == 0;
}

std::optional<std::vector<std::uint8_t>> NTFSFileRecord::value(std::uint32_t type) const {
    const std::vector<Part> parts = partsOf(type);
    if (parts.empty()) {
        return std::nullopt;
    }
    NTFSRecord buffer(own.bytes.size());
    const NTFSAttribute found = attributeOf(parts.front(), type, buffer);
    return found.isResident() ? std::optional(copyOf(found.value())) : std::nullopt;
}

std::optional<NTFSDataRuns> NTFSFileRecord::runs(std::uint32_t type) const {
    NTFSRecord buffer(own.bytes.size());
    std::optional<NTFSDataRuns> whole;
    std::uint64_t covered = 0;
    std::uint64_t allocated = 0;
    for (const Part& part : partsOf(type)) {
        const NTFSAttribute found = attributeOf(part, type, buffer);
        if (found.isResident()) {
            return std::nullopt;
        }
        if (!whole) {
            whole.emplace();
            allocated = found.allocatedBytes() / volume.clusterBytes;
        }
        append(*whole, covered, found);
    }
    if (whole) {
        whole->isComplete = covered >= allocated;
    }
    return whole;
}

/// The parts of the first attribute of this type, in file order, in which a list has them. Terminates,
/// because each entry of the list has a length greater than 0.
std::vector<NTFSFileRecord::Part> NTFSFileRecord::partsOf(std::uint32_t type) const {
    NTFSAttributeCursor cursor(volume.logger, own);
    if (!cursor.findAttribute(attribute::typeAttributeList)) {
        NTFSAttributeCursor single(volume.logger, own);
        return single.findAttribute(type) ? std::vector{Part{number, single.attribute().lowestVcn(),
                                                             single.attribute().nameLength()}}
                                          : std::vector<Part>{};
    }
    const std::vector<std::uint8_t> list = listOf(cursor.attribute());
    std::vector<Part> parts;
    for (Bytes rest = list; !rest.empty();) {
        requireList(rest.size() >= list_entry::size, "NTFS: An entry of an attribute list is cut short.");
        const Part part{.record = littleEndian<std::uint64_t>(rest, list_entry::record) &
                                  ntfs_layout::referenceNumber,
                        .vcn = littleEndian<std::uint64_t>(rest, list_entry::vcn),
                        .nameLength = rest[list_entry::nameLength]};
        if (littleEndian<std::uint32_t>(rest, list_entry::type) == type &&
            (parts.empty() || parts.front().nameLength == part.nameLength)) {
            parts.push_back(part);
        }
        const std::size_t length = littleEndian<std::uint16_t>(rest, list_entry::length);
        requireList(length >= list_entry::size && length <= rest.size(),
                    "NTFS: An entry of an attribute list isn't within it.");
        rest = rest.subspan(length);
    }
    return parts;
}

std::vector<std::uint8_t> NTFSFileRecord::listOf(const NTFSAttribute& attribute) const {
    if (attribute.isResident()) {
        return copyOf(attribute.value());
    }
    NTFSDataRuns found = volume.files.checkedRuns(attribute, decodeRunList(attribute));
    requireList(found.whyNotPlain == nullptr && found.writtenBytes <= maxListBytes,
                "NTFS: An attribute list is too large, or isn't plain.");
    std::vector<std::uint8_t> list(found.writtenBytes);
    requireList(NTFSRunReader(volume, std::move(found.runs)).read(0, list),
                "NTFS: Can't read an attribute list.");
    return list;
}

/// Finds a part in the file's own record, or in another record, which it then reads into `buffer`.
NTFSAttribute NTFSFileRecord::attributeOf(const Part& part, std::uint32_t type, NTFSRecord& buffer) const {
    const bool isOwn = part.record == number;
    requireList(isOwn || (volume.files.readInode(part.record, buffer) == 0 && buffer.baseRecord() == number),
                "NTFS: Can't read a record that an attribute list names.");
    NTFSAttributeCursor cursor(volume.logger, isOwn ? own : buffer);
    for (bool isThere = cursor.findAttribute(type); isThere; isThere = cursor.findNext(type)) {
        const NTFSAttribute found = cursor.attribute();
        if (found.lowestVcn() == part.vcn && found.nameLength() == part.nameLength) {
            return found;
        }
    }
    throw NTFSError{"NTFS: An attribute isn't where the list of its file has it."};
}

void NTFSFileRecord::append(NTFSDataRuns& whole, std::uint64_t& covered, const NTFSAttribute& part) const {
    requireList(part.lowestVcn() == covered, "NTFS: The parts of a file don't follow each other.");
    const NTFSDataRuns found = volume.files.checkedRuns(part, decodeRunList(part));
    for (const NTFSRun& run : found.runs) {
        requireList(!__builtin_add_overflow(covered, static_cast<std::uint64_t>(run.length), &covered),
                    "NTFS: A file is larger than a file can be.");
    }
    whole.runs.insert(whole.runs.end(), found.runs.begin(), found.runs.end());
    requireList(whole.runs.size() <= maxRuns, "NTFS: A file has too many runs of clusters.");
}

} // namespace agent::core::fs
