#pragma once

#include "info/log/ILogLevelStore.h"
#include "info/log/LogLevel.h"
#include "info/log/PrinterFunction.h"

#include <atomic>

namespace agent::info {

class Logger;

/// The lower-case name of a threshold, "min" to "max"; "unknown" for any other number.
std::string levelName(int level);

/// The threshold of the log: messages pass if they are at least as severe. It starts at "info". After `load`,
/// the store keeps it under "log_level".
/// Owns:    the threshold; the store must outlive it.
/// Threads: any thread may call `pass` and `threshold`, even while another thread calls `setLevel`. The
///          threshold is one atomic integer, so each message sees the old or the new value.
/// Fails:   `setLevel` throws what the store throws; the new threshold applies nevertheless.
class StoredLevelFilter {
public:
    StoredLevelFilter() = default;
    StoredLevelFilter(const StoredLevelFilter&) = delete;
    StoredLevelFilter& operator=(const StoredLevelFilter&) = delete;
    virtual ~StoredLevelFilter() = default;

    virtual void setLevel(int level);

    /// Loads the threshold from the store, and remembers the store for later changes. Replaces a stored text
    /// that isn't the name of a level with the current level.
    void load(Logger& logger, ILogLevelStore& levelStore);

    [[nodiscard]] int threshold() const noexcept { return current; }
    [[nodiscard]] bool pass(const std::string& message, int level, LogTime time) const;

private:
    ILogLevelStore* store = nullptr;
    std::atomic<int> current = level::info;
};

} // namespace agent::info
