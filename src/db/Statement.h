#pragma once

#include "db/qparam.h"

#include <sqlite3.h>

#include <cstddef>
#include <string>
#include <vector>

namespace agent::db {

/// Owns one prepared statement, or none.
/// Owns:    the statement; it is finalized with the object. The connection must outlive it.
/// Threads: the thread of the connection.
/// Fails:   by SQLite's result codes; `column` throws std::bad_alloc only.
class Statement {
public:
    Statement() noexcept = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { sqlite3_finalize(handle); }

    /// Compiles the first statement in `sql`; to be called once.
    int prepare(sqlite3* database, const std::string& sql) noexcept;

    /// Binds from position 1 upward, copying texts. Returns the position of the first parameter that can't be
    /// bound, 0 if there is none.
    std::size_t bind(const std::vector<qparam>& params) noexcept;

    int step() noexcept { return sqlite3_step(handle); }
    [[nodiscard]] int columnCount() const noexcept { return sqlite3_column_count(handle); }
    /// A column of the current row.
    [[nodiscard]] qparam column(int index) const;

private:
    sqlite3_stmt* handle = nullptr;
};

} // namespace agent::db
