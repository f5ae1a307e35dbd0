#pragma once

#include "BackupLog.h"

#include <ctime>
#include <memory>
#include <optional>
#include <string>

namespace bekctl {

/// The facts about backups in the agent's log files.
struct LogFindings {
    std::unique_ptr<BackupLog> log;
    std::optional<std::time_t> since; ///< the day of the oldest file; nothing if there is none
    std::string problem;              ///< why not all of them could be read
};

/// Reads the files line by line, oldest first.
LogFindings readLogs();

} // namespace bekctl
