#pragma once

#include "core/fs/IVolumeReader.h"
#include "core/fs/ntfs/NTFSAttribute.h"
#include "core/fs/ntfs/NTFSBootSector.h"
#include "core/fs/ntfs/NTFSRecord.h"
#include "core/fs/ntfs/NTFSRecordReader.h"
#include "core/fs/ntfs/NTFSRunList.h"
#include "info/log/Logger.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace agent::core::fs {

/// Where the content of a file is. All runs but holes are on the volume, and together no more than it has
/// clusters.
struct NTFSDataRuns {
    std::vector<NTFSRun> runs;
    std::uint64_t writtenBytes = 0; ///< of the file, as far as they are its content
    bool isWhole = true;            ///< false where the file goes on in runs that another record has
    const char* packing = nullptr;  ///< why the clusters don't hold the content as it is; null if they do
};

/// Finds the content of files by the master file table.
/// Owns:    the table's own record.
/// Threads: one at a time; moves the reader's position.
/// Fails:   no runs where a record can't be read or has none; NTFSObjection where what it says is not to be
///          relied on; std::runtime_error, whose text is part of no line, where a run list is broken.
class NTFSMasterFileTable {
public:
    /// Reads the table's own record; what comes of that shows when a file is asked for. The boot sector is
    /// one to which there is no objection.
    NTFSMasterFileTable(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize,
                        NTFSBootSector boot);

    /// Where the content of a file is, whose number has 48 bits; or of the first part of it, as what further
    /// records have is left out.
    NTFSDataRuns getDataRuns(std::uint64_t inode);
    /// Of a record, in bytes.
    [[nodiscard]] std::size_t recordSize() const { return mftRecord0.bytes.size(); }
    /// Fills a record of that size. Returns 0, or a number of ntfs_error.
    std::int64_t readInode(std::uint64_t inode, NTFSRecord& buffer);
    /// The same of a list of this attribute, whatever it is that the attribute has.
    [[nodiscard]] NTFSDataRuns judgedRuns(const NTFSAttribute& attribute, NTFSRunList list) const;

private:
    /// A run of the table's own, and which of the table's clusters is its first.
    struct Place {
        NTFSRun run;
        std::uint64_t firstVcn = 0;
    };

    NTFSDataRuns tableRuns();
    static Place placeOf(std::uint64_t vcn, const std::vector<NTFSRun>& runs);
    std::optional<NTFSDataRuns> dataOf(const NTFSRecord& record);
    NTFSDataRuns searchAttributeList(std::uint64_t inode, const NTFSAttribute& list);
    std::optional<NTFSDataRuns> dataOfPart(std::uint64_t record, std::uint64_t inode);

    info::Logger& logger;
    NTFSBootSector boot;
    NTFSRecordReader records;
    NTFSRecord mftRecord0;
    std::int64_t mftRecord0Result;
};

} // namespace agent::core::fs
