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

/// Where the content of a file is. All runs except holes lie on the volume, and together have at most as many
/// clusters as the volume.
struct NTFSDataRuns {
    std::vector<NTFSRun> runs;
    std::uint64_t writtenBytes = 0;    ///< how many bytes of the file have been written
    bool isComplete = true;            ///< false if further runs of the file are in other records
    const char* whyNotPlain = nullptr; ///< why the clusters don't hold the plain content; null if they do
};

/// Finds the content of files through the master file table.
/// Owns:    the table's own record; logger and reader must outlive it.
/// Threads: one at a time; moves the reader's position.
/// Fails:   returns no runs if a record can't be read or has none; NTFSError if a record isn't plausible;
///          std::runtime_error, which isn't logged, if a run list is broken.
class NTFSMasterFileTable {
public:
    /// Reads the table's own record; if that fails, later calls fail. `boot` must be usable.
    NTFSMasterFileTable(info::Logger& logger, IVolumeReader& reader, std::uint32_t sectorSize,
                        NTFSBootSector boot);

    /// Where the content of a file is. `inode` has at most 48 bits. Runs that are in further records are left
    /// out.
    NTFSDataRuns getDataRuns(std::uint64_t inode);
    /// The size of a record, in bytes.
    [[nodiscard]] std::size_t recordSize() const { return mftRecord0.bytes.size(); }
    /// Fills `buffer`, which must have that size. Returns 0, or a number of ntfs_error.
    std::int64_t readInode(std::uint64_t inode, NTFSRecord& buffer);
    /// Checks the run list of an attribute of any type. Throws NTFSError if it isn't plausible.
    [[nodiscard]] NTFSDataRuns checkedRuns(const NTFSAttribute& attribute, NTFSRunList list) const;

private:
    /// A run of the table itself, and the number of its first cluster in the table.
    struct LocatedRun {
        NTFSRun run;
        std::uint64_t firstVcn = 0;
    };

    NTFSDataRuns tableRuns();
    static LocatedRun runContaining(std::uint64_t vcn, const std::vector<NTFSRun>& runs);
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
