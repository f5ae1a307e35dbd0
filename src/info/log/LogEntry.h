#pragma once

#include "info/log/LogLevel.h"
#include "info/log/Reason.h"

#include <cstdarg>
#include <sstream>

namespace agent::info {

class Logger;

/// One log message under construction: a stream that delivers its text to a Logger.
/// Owns:    its text; the Logger must outlive it.
/// Threads: only the thread that created it may use it.
/// Fails:   a stream in a failed state silently drops the message; the destructor never throws.
// NOLINTNEXTLINE(cppcoreguidelines-special-member-functions): a move is the copy, without the text
class LogEntry : public std::ostringstream {
public:
    /// A level outside 0..4 is clamped to that range.
    LogEntry(Logger& logger, int level);
    /// Puts the reason's mark at the end of the line.
    LogEntry(Logger& logger, int level, const Reason& reason);
    /// The same, but `reason` may be null: then there is no mark.
    LogEntry(Logger& logger, int level, const Reason* reason);
    /// The copy logs to the same logger at the same level, and starts without text and without a reason.
    LogEntry(const LogEntry& other);
    LogEntry& operator=(const LogEntry&) = delete;
    /// Ends the line and delivers it, unless there is no text.
    ~LogEntry() override;

    /// Appends printf-like text, of any length. If formatting fails, puts the stream into a failed state.
    [[gnu::format(printf, 2, 3)]] LogEntry& format(const char* format, ...);
    [[gnu::format(printf, 2, 0)]] LogEntry& formatList(const char* format, va_list arguments);

    /// Delivers the text so far, and empties the entry.
    void flush();

private:
    Logger* logger;
    int level;
    const Reason* reason = nullptr;
};

} // namespace agent::info
