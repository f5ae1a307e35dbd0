#pragma once

#include "info/log/LogLevel.h"
#include "info/log/Reason.h"

#include <cstdarg>
#include <sstream>

namespace agent::info {

class Logger;

/// One log statement under construction: a stream that delivers its text to a Logger.
/// Owns:    its text; the Logger must outlive it.
/// Threads: belongs to the thread that made it.
/// Fails:   a stream in a failed state drops the statement silently; the destructor lets nothing escape.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): a move is the copy, without the text
class LogEntry : public std::ostringstream {
public:
    /// A level outside 0..4 is clamped into it.
    LogEntry(Logger& logger, int level);
    /// The line ends in the mark of the reason.
    LogEntry(Logger& logger, int level, const Reason& reason);
    /// The same; null if there is no reason to tell.
    LogEntry(Logger& logger, int level, const Reason* reason);
    /// The copy logs to the same logger at the same level and starts with no text.
    LogEntry(const LogEntry& other);
    LogEntry& operator=(const LogEntry&) = delete;
    /// Ends the line and delivers it, if text has remained.
    ~LogEntry() override;

    /// Appends printf-like text, of any length. A format that can't be rendered fails the stream.
    [[gnu::format(printf, 2, 3)]] LogEntry& format(const char* format, ...);
    [[gnu::format(printf, 2, 0)]] LogEntry& formatList(const char* format, va_list arguments);

    /// Delivers what has been collected so far, and empties the entry.
    void flush();

private:
    Logger* logger;
    int level;
    const Reason* reason = nullptr;
};

} // namespace agent::info
