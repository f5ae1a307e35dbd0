#pragma once

#include <sqlite3.h>

#include <functional>
#include <utility>

namespace agent::test {

/// While an object exists, passes every SQLite connection that any code opens to a function.
/// Owns:    the registration with SQLite; only one object may exist at a time.
/// Threads: connections may be opened in any thread; the function is called there.
/// Fails:   never.
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
    // sqlite3_auto_extension() takes every entry point as this type, whatever its real signature is.
    static void (*entry())() { return reinterpret_cast<void (*)()>(&ConnectionHook::opened); }

    // static, since SQLite passes no context to an entry point
    static inline std::function<void(sqlite3*)> function;
};

} // namespace agent::test
