#include "core/backup/BackupType.h"

namespace agent::core::backup {

std::string backupTypeText(std::uint32_t type) {
    switch (type) {
    case FULL:
        return "FULL";
    case INCREMENTAL:
        return "INCREMENTAL";
    case DIFFERENTIAL_MERGE:
        return "DIFFERENTIAL MERGE";
    default:
        return std::to_string(type);
    }
}

BackupType requestedBackupType(bool forceDiffMerge, bool forceCopyFull) {
    if (forceCopyFull) {
        return FULL;
    }
    return forceDiffMerge ? DIFFERENTIAL_MERGE : INCREMENTAL;
}

} // namespace agent::core::backup
