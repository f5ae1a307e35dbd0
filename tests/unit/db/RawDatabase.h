#pragma once

#include <sqlite3.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::test {

/// The test's own connection to a database, independent of the code under test.
/// Owns:    the connection.
/// Threads: one.
/// Fails:   by std::runtime_error with the message of SQLite.
class RawDatabase {
public:
    explicit RawDatabase(const std::string& path) {
        if (sqlite3_open(path.c_str(), &database) != SQLITE_OK) {
            const std::string failure = sqlite3_errmsg(database);
            sqlite3_close(database);
            throw std::runtime_error(path + ": " + failure);
        }
    }
    RawDatabase(const RawDatabase&) = delete;
    RawDatabase& operator=(const RawDatabase&) = delete;
    ~RawDatabase() { sqlite3_close(database); }

    /// Runs any number of statements; returns the first column of every row, std::nullopt for NULL.
    std::vector<std::optional<std::string>> run(const std::string& sql) {
        std::vector<std::optional<std::string>> result;
        const auto collect = [](void* rows, int, char** values, char**) {
            static_cast<std::vector<std::optional<std::string>>*>(rows)->push_back(
                values[0] != nullptr ? std::optional<std::string>(values[0]) : std::nullopt);
            return 0;
        };
        if (sqlite3_exec(database, sql.c_str(), collect, &result, nullptr) != SQLITE_OK) {
            throw std::runtime_error(sql + ": " + sqlite3_errmsg(database));
        }
        return result;
    }

    /// The first column of the first row; std::nullopt if it is NULL or there is no row.
    std::optional<std::string> value(const std::string& sql) {
        const auto result = run(sql);
        return result.empty() ? std::nullopt : result.front();
    }

private:
    sqlite3* database = nullptr;
};

} // namespace agent::test
