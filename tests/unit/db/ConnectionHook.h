#pragma once

#include <sqlite3.h>

#include <functional>
#include <utility>

namespace agent::test {

/// Shows every connection that is opened, in whatever code, to a function while the object lives. One at a
/// time.
class ConnectionHook {
public:
    explicit ConnectionHook(std::function<void(sqlite3*)> seen) {
        function = std::move(seen);
        sqlite3_auto_extension(entry());
    }
    ConnectionHook(const ConnectionHook&) = delete;
    ConnectionHook& operator=(const ConnectionHook&) = delete;
    ~ConnectionHook() { sqlite3_cancel_auto_extension(entry()); }

private:
    static int opened(sqlite3* database, const char** /*message*/, const sqlite3_api_routines* /*api*/) {
        function(database);
        return SQLITE_OK;
    }
    // SQLite registers entry points of any signature under this one.
    static void (*entry())() { return reinterpret_cast<void (*)()>(&ConnectionHook::opened); }

    // SQLite hands no context to an entry point.
    static inline std::function<void(sqlite3*)> function;
};

} // namespace agent::test
