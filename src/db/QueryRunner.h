#pragma once

#include "db/qparam.h"
#include "info/log/Logger.h"

#include <sqlite3.h>

#include <string>
#include <vector>

namespace agent::db {

/// One open database connection. All of the agent's SQL statements go through this class.
/// Owns:    the connection; the destructor closes it. The logger must outlive it.
/// Threads: only the thread that created it may use it; it has no locks.
/// Fails:   the constructor throws SQLiteError, or library_error if memory is exhausted; the operations throw
///          std::runtime_error. If another process has locked the database, they fail at once.
class QueryRunner {
public:
    /// Opens the file for reading and writing, and creates it if it is missing.
    QueryRunner(info::Logger& logger, const std::string& path);
    /// `other` has no connection afterwards; its operations throw.
    QueryRunner(QueryRunner&& other) noexcept;
    QueryRunner& operator=(QueryRunner&&) = delete;
    QueryRunner(const QueryRunner&) = delete;
    QueryRunner& operator=(const QueryRunner&) = delete;
    virtual ~QueryRunner();

    /// Runs one statement and replaces `rows` with its result, one value for each column.
    void RunQuery(const std::string& sql, const std::vector<qparam>& params,
                  std::vector<std::vector<qparam>>& rows);
    /// Runs one statement that returns no rows.
    void RunUpdate(const std::string& sql, const std::vector<qparam>& params);

private:
    info::Logger& logger;
    sqlite3* database = nullptr;
};

} // namespace agent::db
