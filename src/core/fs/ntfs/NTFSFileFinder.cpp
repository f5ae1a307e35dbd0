#include "core/fs/ntfs/NTFSFileFinder.h"

#include "core/fs/ntfs/NTFSDirectory.h"
#include "core/fs/ntfs/NTFSFileRecord.h"
#include "core/fs/ntfs/NTFSLayout.h"
#include "core/fs/ntfs/NTFSNameLocale.h"
#include "core/fs/ntfs/NTFSPathElement.h"

#include <cstdint>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace agent::core::fs {

NTFSDataRuns NTFSFileFinder::findRuns(const std::string& path) const {
    const NTFSNameLocale locale;
    std::uint64_t inode = ntfs_layout::rootRecord;
    std::istringstream parts(path);
    for (std::string part; std::getline(parts, part, '\\');) {
        if (!part.empty()) {
            const NTFSPathElement sought(part);
            inode = NTFSDirectory(volume, inode, sought).find();
        }
    }
    NTFSDataRuns found = runsOf(inode);
    if (found.runs.empty()) {
        throw std::runtime_error("Could not find data runs for file " + path);
    }
    return found;
}

/// If getDataRuns doesn't find all runs, the others are in further records, which NTFSFileRecord reads.
NTFSDataRuns NTFSFileFinder::runsOf(std::uint64_t inode) const {
    NTFSDataRuns found = volume.files.getDataRuns(inode);
    if (!found.runs.empty() && found.isComplete) {
        return found;
    }
    NTFSFileRecord record(volume);
    return record.read(inode) ? record.runs(ntfs_layout::attribute::typeData).value_or(std::move(found))
                              : found;
}

} // namespace agent::core::fs
