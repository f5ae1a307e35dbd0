#include "db/QueryRunner.h"

#include "db/SQLiteError.h"
#include "db/Statement.h"

#include <stdexcept>
#include <utility>

namespace agent::db {

namespace {

void bindAll(Statement& statement, const std::string& sql, const std::vector<qparam>& params,
             const std::string& failure) {
    const std::size_t failed = statement.bind(params);
    if (failed != 0) {
        throw std::runtime_error(failure + std::to_string(failed) + " in sql " + sql);
    }
}

std::vector<qparam> readRow(const Statement& statement, const std::string& sql) {
    const int columns = statement.columnCount();
    if (columns == 0) {
        throw std::runtime_error("Sanity failure, no fields returned in row for sql " + sql);
    }
    std::vector<qparam> row;
    row.reserve(static_cast<std::size_t>(columns));
    for (int index = 0; index < columns; ++index) {
        row.push_back(statement.column(index));
    }
    return row;
}

} // namespace

QueryRunner::QueryRunner(info::Logger& logger, const std::string& path) : logger(logger) {
    const int result =
        sqlite3_open_v2(path.c_str(), &database, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr);
    if (database == nullptr) {
        throw exception::library_error("SQLite is unable to allocate memory to hold the sqlite3 object");
    }
    if (result != SQLITE_OK) {
        // The connection holds the error message, so the message is copied before the connection is closed.
        const SQLiteError error("QueryRunner", database, result);
        sqlite3_close(std::exchange(database, nullptr));
        throw error;
    }
}

QueryRunner::QueryRunner(QueryRunner&& other) noexcept
    : logger(other.logger), database(std::exchange(other.database, nullptr)) {}

QueryRunner::~QueryRunner() {
    const int result = sqlite3_close(std::exchange(database, nullptr));
    if (result != SQLITE_OK) {
        info::LogEntry(logger, info::level::error)
            .format("Unable to close database, leaking a file handle. error: %d", result);
    }
}

void QueryRunner::RunQuery(const std::string& sql, const std::vector<qparam>& params,
                           std::vector<std::vector<qparam>>& rows) {
    if (database == nullptr) {
        throw std::runtime_error("Sanity failure, run query called with null db handle");
    }
    Statement statement;
    if (statement.prepare(database, sql) != SQLITE_OK) {
        throw std::runtime_error(std::string("Unable to call prepare in runquery, sqlite return: ") +
                                 sqlite3_errmsg(database));
    }
    bindAll(statement, sql, params, "runquery unable to bind param ");
    rows.clear();
    int result = statement.step();
    for (; result == SQLITE_ROW; result = statement.step()) {
        rows.push_back(readRow(statement, sql));
    }
    if (result != SQLITE_DONE) {
        throw std::runtime_error("runquery step returned " + std::to_string(result));
    }
}

void QueryRunner::RunUpdate(const std::string& sql, const std::vector<qparam>& params) {
    if (database == nullptr) {
        throw std::runtime_error("Sanity failure, run update called with null db handle");
    }
    Statement statement;
    const int prepared = statement.prepare(database, sql);
    if (prepared != SQLITE_OK) {
        throw std::runtime_error("Unable to call prepare in runupdate, sqlite return: " +
                                 std::to_string(prepared));
    }
    bindAll(statement, sql, params, "runupdate unable to bind param ");
    const int result = statement.step();
    if (result != SQLITE_DONE) {
        throw std::runtime_error("runupdate execution failed, step returned " + std::to_string(result));
    }
}

} // namespace agent::db
