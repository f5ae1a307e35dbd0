#pragma once

#include <cstdint>
#include <string>

namespace agent::core::backup {

/// Which blocks of a volume a backup sends. The status of a backup shows these numbers.
enum BackupType : std::uint32_t {
    FULL = 0,               ///< Every used block.
    INCREMENTAL = 1,        ///< The blocks that the driver recorded as changed since the last backup.
    DIFFERENTIAL_MERGE = 2, ///< Every used block is compared with the image; blocks that differ are written.
};

/// The name for log lines; the decimal number if `type` isn't a BackupType.
std::string backupTypeText(std::uint32_t type);

/// The type that a request asks for: INCREMENTAL, unless it forces more. A forced full copy wins.
BackupType requestedBackupType(bool forceDiffMerge, bool forceCopyFull);

} // namespace agent::core::backup
