#pragma once

#include "db/qparam.h"
#include "info/log/Logger.h"

#include <sqlite3.h>

#include <string>
#include <vector>

namespace agent::db {

/// One open database connection; the agent's only way to SQLite.
/// Owns:    the connection; it is closed with the object. The logger must outlive it.
/// Threads: belongs to the thread that made it; it has no locks.
/// Fails:   the constructor throws SQLiteError, or library_error without memory; the operations throw
///          std::runtime_error. A database that somebody else has locked fails at once: nothing is retried.
class QueryRunner {
public:
    /// Opens the file for reading and writing, and creates it if it is missing.
    QueryRunner(info::Logger& logger, const std::string& path);
    /// The runner that was moved from has no connection; its operations throw.
    QueryRunner(QueryRunner&& other) noexcept;
    QueryRunner& operator=(QueryRunner&&) = delete;
    QueryRunner(const QueryRunner&) = delete;
    QueryRunner& operator=(const QueryRunner&) = delete;
    virtual ~QueryRunner();

    /// Runs one statement and replaces `rows` by its result, one value a column.
    void RunQuery(const std::string& sql, const std::vector<qparam>& params,
                  std::vector<std::vector<qparam>>& rows);
    /// Runs one statement that returns no rows.
    void RunUpdate(const std::string& sql, const std::vector<qparam>& params);

private:
    info::Logger& logger;
    sqlite3* database = nullptr;
};

} // namespace agent::db
