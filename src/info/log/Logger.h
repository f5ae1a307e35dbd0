#pragma once

#include "info/log/LogEntry.h"
#include "info/log/PrinterFunction.h"
#include "os/Mutex.h"

#include <memory>

namespace agent::info {

/// Every component logs through this class. It passes each finished message to a tree of printers.
/// Owns:    the printer function; its printers must outlive every use. Copies share one mutex.
/// Threads: any thread may log; the printer tree runs under the mutex, one message at a time.
/// Fails:   `print` passes on what the printer throws; a LogEntry's destructor swallows it.
///
/// A message with printf directives goes through `log`, any other message through a LogEntry:
///     logger.log(level::info, "Driver version: %s", version.c_str());
///     LogEntry(logger, level::info) << "DriverController created";
/// Both accept a reason after the level.
class Logger {
public:
    /// `isLevelEnabled` returns whether messages of a level reach any output. Without it, all levels do.
    explicit Logger(PrinterFunction printer, LevelFunction isLevelEnabled = {});

    /// Formats a line and delivers it. Returns an empty entry with the same logger and level.
    [[gnu::format(printf, 3, 4)]] LogEntry log(int level, const char* format, ...);
    /// The same, with the reason's mark at the end of the line.
    [[gnu::format(printf, 4, 5)]] LogEntry log(int level, const Reason& reason, const char* format, ...);

    /// Delivers `message` unchanged, with the time at which the mutex was locked, so that the times of one
    /// logger's messages never run backwards in its file. Does nothing if there is no printer.
    void print(const std::string& message, int level) const;

    [[nodiscard]] bool hasPrinter() const noexcept { return static_cast<bool>(printer); }

    /// Whether a message of this level reaches any output. A loop that logs in every iteration can check this
    /// once instead of formatting messages in vain. The printers still decide about each message.
    [[nodiscard]] bool isEnabled(int level) const;

private:
    PrinterFunction printer;
    LevelFunction isLevelEnabled;
    std::shared_ptr<os::Mutex> mutex; // serialises the printer tree; shared by all copies of this logger
};

} // namespace agent::info
