#pragma once

#include "db/qparam.h"

#include <sqlite3.h>

#include <cstddef>
#include <string>
#include <vector>

namespace agent::db {

/// Owns one prepared statement, or none.
/// Owns:    the statement; the destructor finalizes it. The connection must outlive it.
/// Threads: only the thread that uses the connection may use it.
/// Fails:   `prepare` and `step` return SQLite's result codes; `column` only throws std::bad_alloc.
class Statement {
public:
    Statement() noexcept = default;
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;
    ~Statement() { sqlite3_finalize(handle); }

    /// Compiles the first statement in `sql`. Call it only once.
    int prepare(sqlite3* database, const std::string& sql) noexcept;

    /// Binds `params` to the positions 1, 2, ... and copies texts. Returns the position of the first
    /// parameter that can't be bound, or 0 if all are bound.
    std::size_t bind(const std::vector<qparam>& params) noexcept;

    int step() noexcept { return sqlite3_step(handle); }
    [[nodiscard]] int columnCount() const noexcept { return sqlite3_column_count(handle); }
    /// A column of the current row.
    [[nodiscard]] qparam column(int index) const;

private:
    sqlite3_stmt* handle = nullptr;
};

} // namespace agent::db
