#pragma once

#include <string>

namespace agent::core::backup {

/// Reports which volumes of a backup are incremental.
/// Owns:    the map of types.
/// Threads: the thread of the backup.
/// Fails:   std::invalid_argument for a volume that is not part of the backup.
class IBackupType {
public:
    virtual ~IBackupType() = default;
    [[nodiscard]] virtual bool isIncremental(const std::string& uuid) const = 0;
};

} // namespace agent::core::backup
