#pragma once

#include "info/log/ILogLevelStore.h"
#include "info/log/LogLevel.h"
#include "info/log/PrinterFunction.h"

#include <atomic>

namespace agent::info {

class Logger;

/// The lower-case name of a threshold, "min" to "max"; "unknown" for a number that is none.
std::string levelName(int level);

/// The threshold of the log: lets pass what is at least as severe. It starts at "info" and, once loaded, is
/// kept in the store under "log_level".
/// Owns:    the threshold; the store must outlive it.
/// Threads: `pass` and `threshold` from any; `setLevel` may come from another thread meanwhile. The value is
///          one atomic integer: a message in flight is judged by the old or the new one.
/// Fails:   `setLevel` throws what the store throws; the new threshold is in force all the same.
class StoredLevelFilter {
public:
    StoredLevelFilter() = default;
    StoredLevelFilter(const StoredLevelFilter&) = delete;
    StoredLevelFilter& operator=(const StoredLevelFilter&) = delete;
    virtual ~StoredLevelFilter() = default;

    virtual void setLevel(int level);

    /// Takes the threshold from the store and keeps the store for later changes. A stored text that names no
    /// level is replaced by the current one.
    void load(Logger& logger, ILogLevelStore& levelStore);

    [[nodiscard]] int threshold() const noexcept { return current; }
    [[nodiscard]] bool pass(const std::string& message, int level, LogTime time) const;

private:
    ILogLevelStore* store = nullptr;
    std::atomic<int> current = level::info;
};

} // namespace agent::info
