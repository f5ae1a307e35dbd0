#pragma once

#include "info/log/LogEntry.h"
#include "info/log/PrinterFunction.h"

#include <memory>
#include <mutex>

namespace agent::info {

/// The front that every component logs through: hands each finished message to a tree of printers.
/// Owns:    the printer function; what that refers to must outlive every use. Copies share one mutex.
/// Threads: any thread may log; the printer tree runs under the mutex, one message at a time.
/// Fails:   never by itself; what the printer throws leaves `print`, but not a LogEntry's destructor.
///
/// Either form is one statement:
///     LogEntry(logger, level::info) << "Driver version: " << version;
///     logger.log(level::info, "Driver version: %s", version.c_str());
/// and either takes a reason behind the level.
class Logger {
public:
    /// `wanted` tells which levels anything at all comes of; without it that is every level.
    explicit Logger(PrinterFunction printer, LevelFunction wanted = {});

    /// Formats, ends the line and delivers it. Returns an empty entry of the same logger and level.
    [[gnu::format(printf, 3, 4)]] LogEntry log(int level, const char* format, ...);
    /// The same, and the line ends in the mark of the reason.
    [[gnu::format(printf, 4, 5)]] LogEntry log(int level, const Reason& reason, const char* format, ...);

    /// Delivers `message` as it stands, stamped with the time at which the mutex was obtained, so that the
    /// times of one logger's messages never run backwards in its file. Without a printer it does nothing.
    void print(const std::string& message, int level) const;

    [[nodiscard]] bool hasPrinter() const noexcept { return static_cast<bool>(printer); }

    /// Whether a message of this level reaches anybody. For loops that would log each round: asking once is
    /// cheaper than making messages that nobody gets. What is logged all the same is delivered as ever.
    [[nodiscard]] bool isEnabled(int level) const;

private:
    PrinterFunction printer;
    LevelFunction wanted;
    std::shared_ptr<std::mutex> mutex; // serialises the printer tree; shared by all copies of this logger
};

} // namespace agent::info
