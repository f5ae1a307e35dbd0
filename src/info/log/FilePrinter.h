#pragma once

#include "common/Path.h"
#include "info/log/PrinterFunction.h"

#include <chrono>
#include <cstddef>
#include <string>

namespace agent::info {

/// Appends each message to the log file of its local day, `logs/bek_YYYY-MM-DD.log` below the base directory.
/// Removes files older than the retention when it starts a new file.
/// Owns:    nothing between two messages: it opens and closes the file for each message, so the file may be
///          moved or deleted while the agent runs.
/// Threads: any thread may call it; each message is one append.
/// Fails:   `print` writes a line to standard error and returns false; the file may have part of the message.
class FilePrinter {
public:
    /// How long a log file is kept, counted from the midnight at which its day begins.
    static constexpr std::chrono::seconds retention = std::chrono::hours(7 * 24);

    bool print(const std::string& message, int level, LogTime time);

    /// The directory that holds the log files.
    static Path logDirectory();
    /// The name, without directory, of the file for the local day of `time`.
    static std::string logFileName(LogTime time);
    /// Returns the local midnight at which the day in a log file's name begins. Throws std::logic_error if
    /// the name has the wrong length, prefix, dashes or suffix; the digits aren't checked.
    static LogTime parseLogFileDate(const std::string& name);

private:
    static std::size_t removeOldFiles(const Path& directory, LogTime now);
};

} // namespace agent::info
