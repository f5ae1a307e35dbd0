#include "core/fs/ntfs/NTFSMasterFileTable.h"

#include "core/fs/ntfs/NTFSAttributeCursor.h"
#include "core/fs/ntfs/NTFSError.h"
#include "core/fs/ntfs/NTFSLayout.h"

#include <algorithm>
#include <bit>
#include <utility>

namespace agent::core::fs {

namespace {

namespace attribute = ntfs_layout::attribute;
namespace list_entry = ntfs_layout::list_entry;

unsigned shiftOf(std::uint64_t powerOfTwo) {
    return static_cast<unsigned>(std::countr_zero(powerOfTwo));
}

void require(bool holds, const char* reason) {
    if (!holds) {
        throw NTFSError{reason};
    }
}

} // namespace

NTFSMasterFileTable::NTFSMasterFileTable(info::Logger& logger, IVolumeReader& reader,
                                         std::uint32_t sectorSize, NTFSBootSector boot)
    : logger(logger),
      boot(std::move(boot)),
      records(logger, reader, sectorSize),
      mftRecord0(this->boot.mftRecordSize()),
      mftRecord0Result(records.readMftRecord(0, this->boot.mftLcn * this->boot.clusterBytes(), mftRecord0)) {}

NTFSDataRuns NTFSMasterFileTable::getDataRuns(std::uint64_t inode) {
    NTFSRecord record(boot.mftRecordSize());
    if (readInode(inode, record) != 0) {
        info::LogEntry(logger, info::level::debug) << "Unable to read inode " << inode;
        return {};
    }
    if (auto found = dataOf(record)) {
        return *std::move(found);
    }
    info::LogEntry(logger, info::level::debug) << "Could not find $DATA attribute in inode " << inode;
    NTFSAttributeCursor cursor(logger, record);
    if (!cursor.findAttribute(attribute::typeAttributeList)) {
        info::LogEntry(logger, info::level::debug) << "Could not find $DATA for inode " << inode;
        return {};
    }
    return searchAttributeList(inode, cursor.attribute());
}

/// Uses only the runs in the table's own record; a record past them counts as unreadable. A record that spans
/// two runs is refused, because its end would be read from the wrong place.
std::int64_t NTFSMasterFileTable::readInode(std::uint64_t inode, NTFSRecord& buffer) {
    if (mftRecord0Result != 0) {
        return mftRecord0Result;
    }
    const std::uint64_t recordSize = boot.mftRecordSize();
    const unsigned clusterShift = shiftOf(boot.clusterBytes());
    const std::uint64_t byteOffset = inode << shiftOf(recordSize); // at most 48 + 16 bits
    const auto [run, firstVcn] = runContaining(byteOffset >> clusterShift, tableRuns().runs);
    const std::uint64_t offsetInRun = byteOffset - (firstVcn << clusterShift);
    const std::uint64_t runBytes = static_cast<std::uint64_t>(run.length) << clusterShift;
    if (offsetInRun >= runBytes) {
        return ntfs_error::recordUnreadable;
    }
    require(runBytes - offsetInRun >= recordSize, "NTFS: A file record is in two pieces.");
    // NTFSBootSector::whyUnusable has refused a device whose sectors are known to differ from the volume's.
    const std::uint64_t diskOffset = (static_cast<std::uint64_t>(run.lcn) << clusterShift) + offsetInRun;
    return records.readMftRecord(inode, diskOffset, buffer);
}

/// The runs of the table itself; none if its record has no data.
NTFSDataRuns NTFSMasterFileTable::tableRuns() {
    NTFSDataRuns table = dataOf(mftRecord0).value_or(NTFSDataRuns{});
    require(table.whyNotPlain == nullptr, table.whyNotPlain);
    return table;
}

/// The run that contains the table's cluster `vcn`; a run without clusters if there is none.
NTFSMasterFileTable::LocatedRun NTFSMasterFileTable::runContaining(std::uint64_t vcn,
                                                                   const std::vector<NTFSRun>& runs) {
    std::uint64_t firstVcn = 0;
    for (const NTFSRun& run : runs) {
        const std::uint64_t endVcn = firstVcn + static_cast<std::uint64_t>(run.length);
        if (endVcn > vcn) {
            return {run, firstVcn};
        }
        firstVcn = endVcn;
    }
    return {};
}

/// The runs of the data in a record; nullopt if it has no data.
std::optional<NTFSDataRuns> NTFSMasterFileTable::dataOf(const NTFSRecord& record) {
    NTFSAttributeCursor cursor(logger, record);
    if (!cursor.findAttribute(attribute::typeData)) {
        return std::nullopt;
    }
    const NTFSAttribute data = cursor.attribute();
    NTFSRunList list = runsOf(data);
    require(data.whyUnusable() == nullptr, data.whyUnusable());
    return checkedRuns(data, std::move(list));
}

/// Terminates, because each entry has a length greater than 0.
NTFSDataRuns NTFSMasterFileTable::searchAttributeList(std::uint64_t inode, const NTFSAttribute& list) {
    info::LogEntry(logger, info::level::debug) << "Searching for $DATA in ATTRIBUTE LIST";
    if (!list.isResident()) {
        info::LogEntry(logger, info::level::debug)
            << "Support for non resident ATTRIBUTE LIST not yet added.";
        return {};
    }
    Bytes rest = list.value();
    while (!rest.empty()) {
        require(rest.size() >= list_entry::size, "NTFS: An entry of an attribute list is cut short.");
        const std::size_t length = littleEndian<std::uint16_t>(rest, list_entry::length);
        const auto type = littleEndian<std::uint32_t>(rest, list_entry::type);
        if (length == 0) {
            info::LogEntry(logger, info::level::debug) << "No more entries in ATTRIBUTE LIST";
            return {};
        }
        if (type == attribute::typeEnd) {
            info::LogEntry(logger, info::level::debug)
                << "Found End attribute in ATTRIBUTE LIST, nothing more to traverse";
            return {};
        }
        if (type == attribute::typeData) {
            const auto record =
                littleEndian<std::uint64_t>(rest, list_entry::record) & ntfs_layout::referenceNumber;
            if (auto found = dataOfPart(record, inode)) {
                return *std::move(found);
            }
        }
        require(length >= list_entry::size && length <= rest.size(),
                "NTFS: An entry of an attribute list isn't within it.");
        rest = rest.subspan(length);
    }
    info::LogEntry(logger, info::level::debug) << "Got the end of the ATTRIBUTE LIST";
    return {};
}

/// The runs of a record that an attribute list names; nullopt if the search must go on.
std::optional<NTFSDataRuns> NTFSMasterFileTable::dataOfPart(std::uint64_t record, std::uint64_t inode) {
    info::LogEntry(logger, info::level::debug)
        << "Found $DATA in inode " << record << " for base inode " << inode;
    NTFSRecord part(boot.mftRecordSize());
    if (readInode(record, part) != 0) {
        info::LogEntry(logger, info::level::debug) << "Could not read inode " << record;
        return std::nullopt;
    }
    if (part.baseRecord() != inode) {
        info::LogEntry(logger, info::level::debug)
            << "External inode " << record << " doesn't refer to base inode " << inode;
        return std::nullopt;
    }
    auto found = dataOf(part);
    if (!found) {
        info::LogEntry(logger, info::level::debug)
            << "Could not find $DATA in attribute list inode " << record;
    }
    return found;
}

/// A run must not include cluster 0, which holds the boot sector.
NTFSDataRuns NTFSMasterFileTable::checkedRuns(const NTFSAttribute& attribute, NTFSRunList list) const {
    require(list.whyUnusable == nullptr, list.whyUnusable);
    const auto clusters = static_cast<std::int64_t>(boot.clusterCount());
    const std::uint64_t allocated = attribute.allocatedBytes() / boot.clusterBytes();
    NTFSDataRuns found;
    found.writtenBytes = attribute.writtenBytes();
    found.whyNotPlain = attribute.whyNotPlain();
    std::uint64_t covered = 0;
    std::int64_t total = 0;
    for (const NTFSRun& run : list.runs) {
        covered = std::min(covered + static_cast<std::uint64_t>(run.length), allocated);
        if (run.isHole) {
            found.whyNotPlain = "NTFS: A run of clusters has no place on the volume.";
            continue;
        }
        require(run.lcn > 0 && run.lcn < clusters && run.length <= clusters - run.lcn &&
                    run.length <= clusters - total,
                "NTFS: A run of clusters is outside of the volume.");
        total += run.length;
    }
    found.isComplete = covered == allocated;
    found.runs = std::move(list.runs);
    return found;
}

} // namespace agent::core::fs
