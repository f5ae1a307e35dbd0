#include "Database.h"

#include "SmallFile.h"
#include "common/PosixError.h"
#include "db/SQLiteError.h"
#include "db/Statement.h"

#include <sqlite3.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <system_error>
#include <thread>

namespace bekctl {

namespace {

constexpr std::size_t largestDatabase = std::size_t{64} << 20U;
constexpr std::size_t headerBytes = 100;
constexpr int tries = 40;
constexpr std::chrono::milliseconds pause(50);
constexpr std::size_t mostRows = 10'000;

struct CloseConnection {
    void operator()(sqlite3* connection) const noexcept { sqlite3_close(connection); }
};
using Connection = std::unique_ptr<sqlite3, CloseConnection>;

/// A running transaction keeps the pages that it overwrites in this journal. Without a transaction, the
/// journal is missing or empty.
bool isBeingWritten(const std::string& path) {
    struct ::stat journal{};
    return ::stat((path + "-journal").c_str(), &journal) == 0 && journal.st_size > 0;
}

std::string read(const std::string& path) {
    std::optional<std::string> bytes = readFile(path, largestDatabase);
    if (!bytes) {
        throw std::runtime_error(path + " can't be read: " + agent::PosixError::describe(errno));
    }
    return std::move(*bytes);
}

/// Each transaction changes a counter in the header, so the comparison also finds one that began and ended
/// during the copy.
bool isUnchanged(const std::string& path, const std::string& bytes) {
    const std::optional<std::string> now = readFile(path, largestDatabase);
    return !isBeingWritten(path) && now && *now == bytes;
}

Connection openInMemory(std::string& bytes) {
    sqlite3* made = nullptr;
    const int opened =
        sqlite3_open_v2(":memory:", &made, SQLITE_OPEN_READWRITE | SQLITE_OPEN_MEMORY, nullptr);
    Connection connection(made);
    if (opened != SQLITE_OK) {
        throw std::runtime_error("SQLite has no memory");
    }
    const auto size = static_cast<sqlite3_int64>(bytes.size());
    auto* const start = static_cast<unsigned char*>(static_cast<void*>(bytes.data()));
    const int code = sqlite3_deserialize(made, "main", start, size, size, SQLITE_DESERIALIZE_READONLY);
    if (code != SQLITE_OK) {
        throw agent::SQLiteError("The database can't be opened", made, code);
    }
    return connection;
}

using Row = std::vector<agent::db::qparam>;

std::vector<Row> query(sqlite3* connection, const std::string& text) {
    agent::db::Statement statement;
    if (const int code = statement.prepare(connection, text); code != SQLITE_OK) {
        throw agent::SQLiteError("The database can't be read", connection, code);
    }
    std::vector<Row> rows;
    int code = SQLITE_ROW;
    while (rows.size() < mostRows && (code = statement.step()) == SQLITE_ROW) {
        Row row;
        for (int column = 0; column < statement.columnCount(); ++column) {
            row.push_back(statement.column(column));
        }
        rows.push_back(std::move(row));
    }
    if (code != SQLITE_ROW && code != SQLITE_DONE) {
        throw agent::SQLiteError("The database can't be read", connection, code);
    }
    return rows;
}

void requireIntegrity(sqlite3* connection) {
    const std::vector<Row> found = query(connection, "PRAGMA integrity_check(1);");
    if (found.empty() || found.front().empty() || found.front().front().text != "ok") {
        throw std::runtime_error("The database is damaged: " +
                                 (found.empty() || found.front().empty() ? "" : found.front().front().text));
    }
}

Connection openValid(std::string& bytes) {
    if (bytes.size() < headerBytes || !bytes.starts_with(std::string_view("SQLite format 3\0", 16))) {
        throw std::runtime_error("The file is no database");
    }
    Connection connection = openInMemory(bytes);
    requireIntegrity(connection.get());
    return connection;
}

std::string consistentCopy(const std::string& path) {
    for (int attempt = 0; attempt < tries; ++attempt) {
        if (attempt > 0) {
            std::this_thread::sleep_for(pause);
        }
        if (isBeingWritten(path)) {
            continue;
        }
        std::string bytes = read(path);
        if (isUnchanged(path, bytes)) {
            return bytes;
        }
    }
    throw std::runtime_error(path + " is being written all the time, or a write was cut off: then the next "
                                    "start of the agent puts it right");
}

/// Returns nothing for the values that stand for no checksum, and for values that can't be parsed as a whole.
std::optional<ImageChecksum> checksumOf(const std::string& value, const std::string& type) {
    ImageChecksum found;
    const char* const end = value.data() + value.size();
    const auto [next, error] = std::from_chars(value.data(), end, found.value);
    const bool isOld = type == "gcrypt32crc";
    if (error != std::errc() || next != end || found.value == 0 || (!isOld && type != "libcrc32c")) {
        return std::nullopt;
    }
    found.type = isOld ? agent::db::ChecksumType::gcrypt32crc : agent::db::ChecksumType::libcrc32c;
    return found;
}

} // namespace

std::optional<ImageChecksum> readImageChecksum(const std::string& path, const std::string& uuid) {
    std::string bytes = consistentCopy(path);
    const Connection connection = openValid(bytes);
    for (const Row& row :
         query(connection.get(), "select volume_uuid, image_checksum, image_checksum_type from volumes;")) {
        if (row.at(0).text == uuid) {
            return checksumOf(row.at(1).text, row.at(2).text);
        }
    }
    return std::nullopt;
}

Database parseDatabase(std::string bytes) {
    const Connection connection = openValid(bytes);
    Database found;
    for (const Row& row : query(connection.get(), "select id, ip from device limit 1;")) {
        found.pairing = Pairing{row.at(0).asNumber(), row.at(1).text};
    }
    for (const Row& row : query(connection.get(), "select volume_uuid from volumes;")) {
        found.volumes.push_back(row.at(0).text);
    }
    for (const Row& row :
         query(connection.get(), "select value from config where key = 'agentUUID' limit 1;")) {
        found.agentUuid = row.at(0).text;
    }
    return found;
}

Database readDatabase(const std::string& path) {
    return parseDatabase(consistentCopy(path));
}

} // namespace bekctl
