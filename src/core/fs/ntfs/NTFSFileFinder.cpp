#include "core/fs/ntfs/NTFSFileFinder.h"

#include "core/fs/ntfs/NTFSDirectory.h"
#include "core/fs/ntfs/NTFSLayout.h"
#include "core/fs/ntfs/NTFSNameLocale.h"
#include "core/fs/ntfs/NTFSPathElement.h"

#include <cstdint>
#include <sstream>
#include <stdexcept>

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
    NTFSDataRuns found = volume.files.getDataRuns(inode);
    if (found.runs.empty()) {
        throw std::runtime_error("Could not find data runs for file " + path);
    }
    return found;
}

} // namespace agent::core::fs
