#pragma once

#include "common/Path.h"
#include "info/log/PrinterFunction.h"

#include <chrono>
#include <cstddef>
#include <string>

namespace agent::info {

/// Appends each message to the log file of its local day, `logs/bek_YYYY-MM-DD.log` below the base directory,
/// and removes files older than the retention when a day's file is begun.
/// Owns:    nothing between two messages: the file is opened and closed for each, so it may be moved or
///          deleted while the agent runs.
/// Threads: safe from any; one message is one append.
/// Fails:   with false and one line on standard error; the message may then be in the file in part.
class FilePrinter {
public:
    /// How old a log file gets, counted from the midnight that begins its day.
    static constexpr std::chrono::seconds retention = std::chrono::hours(7 * 24);

    bool print(const std::string& message, int level, LogTime time);

    /// The directory that holds the log files.
    static Path logDirectory();
    /// The name, without directory, of the file for the local day of `time`.
    static std::string logFileName(LogTime time);
    /// The local midnight that begins the day of a log file's name. Throws std::logic_error for any name that
    /// `logFileName` can't have made.
    static LogTime parseLogFileDate(const std::string& name);

private:
    static std::size_t removeOldFiles(const Path& directory, LogTime now);
};

} // namespace agent::info
