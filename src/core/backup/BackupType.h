#pragma once

#include <cstdint>
#include <string>

namespace agent::core::backup {

/// What is sent of a volume. The numbers are what the status of a backup shows.
enum BackupType : std::uint32_t {
    FULL = 0,               ///< Every used block.
    INCREMENTAL = 1,        ///< The blocks that the driver recorded as changed since the last backup.
    DIFFERENTIAL_MERGE = 2, ///< Every used block is compared with the remote image; what differs is written.
};

/// The name for log lines; a number in decimal for a value that is no type.
std::string backupTypeText(std::uint32_t type);

/// The type that a request asks for: INCREMENTAL, unless it forces more. A forced full copy wins.
BackupType requestedBackupType(bool forceDiffMerge, bool forceCopyFull);

} // namespace agent::core::backup
