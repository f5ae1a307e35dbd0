#include "db/DataProvider.h"

#include "common/Directory.h"
#include "common/Exceptions.h"
#include "db/PrivateFile.h"
#include "db/QueryRunner.h"
#include "db/SchemaUpgrade.h"
#include "db/TransactionGuard.h"

#include <charconv>
#include <stdexcept>
#include <string_view>

namespace agent::db {

namespace {

constexpr const char* agentUUIDKey = "agentUUID";
constexpr std::string_view gcryptName = "gcrypt32crc";
constexpr std::string_view libcrcName = "libcrc32c";
constexpr const char* insertJournalRow = "INSERT OR IGNORE INTO change_journal( volume_uuid ) VALUES ( ? );";

struct JournalContext {
    const char* journalColumn;
    const char* changeColumn;
    const char* getPrefix;
    const char* setPrefix;
};

constexpr JournalContext currentContext = {
    "current_journal_id", "current_journal_change_id",
    "DataProvider::getVolumeCurrentJournalChangeId():", "DataProvider::setVolumeCurrentJournalChangeId():"};
constexpr JournalContext nextContext = {
    "next_journal_id", "next_journal_change_id",
    "DataProvider::getVolumeNextJournalChangeId():", "DataProvider::setVolumeNextJournalChangeId():"};

const JournalContext& select(ChangeContext context) {
    switch (context) {
    case ChangeContext::Current:
        return currentContext;
    case ChangeContext::Next:
        return nextContext;
    }
    throw std::runtime_error("Unrecognized change context.");
}

// SQLite only has signed integers. Values of the upper half of the range are stored as negative numbers, and
// columnToUnsigned restores them.
qparam unsignedParam(std::uint64_t value) {
    return qparam(static_cast<std::int64_t>(value));
}

std::uint64_t columnToUnsigned(const qparam& column) {
    return static_cast<std::uint64_t>(column.asNumber());
}

// Requires that the whole text is a number: a checksum that is only partly readable must not be accepted.
std::uint32_t parseChecksum(const std::string& text, const std::string& uuid) {
    std::uint32_t checksum = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, checksum);
    if (result.ec != std::errc() || result.ptr != end) {
        throw std::runtime_error("Invalid checksum found in volumes table for volume UUID: " + uuid +
                                 ", expected a decimal number below 4294967296");
    }
    return checksum;
}

ChecksumType parseChecksumType(const std::string& text) {
    if (text == gcryptName) {
        return ChecksumType::gcrypt32crc;
    }
    if (text == libcrcName) {
        return ChecksumType::libcrc32c;
    }
    throw std::runtime_error("Invalid checksum type found in volumes table");
}

std::string nameOf(ChecksumType type) {
    return std::string(type == ChecksumType::gcrypt32crc ? gcryptName : libcrcName);
}

} // namespace

DataProvider::DataProvider(info::Logger& logger, UUIDGenerator& uuidGenerator, const std::string& directory)
    : logger(logger), uuidGenerator(uuidGenerator) {
    info::LogEntry(logger, info::level::debug) << "DataProvider created";
    dir::make(directory);
    databasePath = Path(directory) / "agent.sqlite";
    logger.log(info::level::debug, "Database filename: %s", databasePath.str().c_str());
}

DataProvider::~DataProvider() {
    info::LogEntry(logger, info::level::debug) << "DataProvider destroyed";
}

std::string DataProvider::getConfigValue(const std::string& key) {
    const Rows rows = query("select value from config where key = ?;", {qparam(key)});
    if (rows.empty()) {
        throw std::runtime_error("No value found for config key " + key);
    }
    return rows.front().front().text;
}

void DataProvider::setConfigValue(const std::string& key, const std::string& value) {
    const os::Lock lock(mutex);
    try {
        QueryRunner runner = open();
        runner.RunUpdate("delete from config where key = ?;", {qparam(key)});
        runner.RunUpdate("insert into config (key, value) values(?, ?);", {qparam(key), qparam(value)});
    } catch (const std::exception& problem) {
        failToSet(key, value, problem);
    }
}

void DataProvider::setVolumeChecksum(const std::string& uuid, std::uint32_t checksum, ChecksumType type) {
    const os::Lock lock(mutex);
    QueryRunner runner = open();
    const std::string value = std::to_string(checksum);
    runner.RunUpdate("INSERT OR IGNORE INTO volumes ( volume_uuid ) VALUES ( ? );", {qparam(uuid)});
    runner.RunUpdate("UPDATE volumes SET image_checksum = ?, image_checksum_type = ?WHERE volume_uuid = ?;",
                     {qparam(value), qparam(nameOf(type)), qparam(uuid)});
    info::LogEntry(logger, info::level::info)
        << "DataProvider: Setting checksum to '" << value << "' for volume '" << uuid << "'";
}

void DataProvider::validateProvider() {
    info::LogEntry(logger, info::level::debug) << "Starting validateProvider.";
    const os::Lock lock(mutex);
    QueryRunner runner = open();
    runner.RunUpdate("BEGIN TRANSACTION;", {});
    // Commits even if one of the calls below throws, which keeps the steps that have succeeded.
    const TransactionGuard guard(logger, runner, true);
    createTables(runner);
    upgradeSchema(logger, runner);
}

bool DataProvider::getDevice(std::int32_t& id, std::string& ip, std::string& agentUUID) {
    const Rows rows = query("select id, ip, agentUUID from device limit 1;", {});
    if (rows.empty()) {
        info::LogEntry(logger, info::level::debug) << "No value found for device id";
        return false;
    }
    const std::vector<qparam>& row = rows.front();
    id = static_cast<std::int32_t>(row.at(0).asNumber());
    ip = row.at(1).text;
    agentUUID = row.at(2).text;
    return true;
}

void DataProvider::setDevice(std::int32_t id, const std::string& ip, const std::string& agentUUID) {
    const os::Lock lock(mutex);
    try {
        QueryRunner runner = open();
        runner.RunUpdate("delete from device;", {});
        runner.RunUpdate("insert into device (id, ip, agentUUID) values(?, ?, ?);",
                         {qparam(id), qparam(ip), qparam(agentUUID)});
    } catch (const std::runtime_error& problem) {
        info::LogEntry(logger, info::level::error) << "QueryRunner problem: " << problem.what();
        throw;
    }
}

void DataProvider::getVolumeChecksum(const std::string& uuid, std::uint32_t& checksum, ChecksumType& type) {
    const Rows rows = queryChecksum(uuid);
    if (rows.empty()) {
        throw std::runtime_error("No valid checksum found for volume UUID: " + uuid);
    }
    const std::vector<qparam>& row = rows.front();
    if (row.size() != 2) {
        const char* const failure = "Invalid column count while reading volumes table";
        info::LogEntry(logger, info::level::error) << failure;
        throw std::runtime_error(failure);
    }
    const std::uint32_t storedChecksum = parseChecksum(row[0].text, uuid);
    type = parseChecksumType(row[1].text);
    checksum = storedChecksum;
}

bool DataProvider::hasVolume(const std::string& uuid) {
    return !query("SELECT volume_uuid FROM volumes WHERE volume_uuid = ? ", {qparam(uuid)}).empty();
}

std::vector<std::string> DataProvider::getVolumeUUIDs() {
    std::vector<std::string> uuids;
    for (const std::vector<qparam>& row : query("SELECT volume_uuid FROM volumes", {})) {
        if (row.empty() || row.front().type != qparam::typeText) {
            throw std::runtime_error("DataProvider::getVolumeUUIDs(): Unexpected response.");
        }
        uuids.push_back(row.front().text);
    }
    return uuids;
}

bool DataProvider::getVolumeJournalChangeId(const std::string& uuid, ChangeContext context,
                                            std::uint64_t& journalId, std::uint64_t& changeId) {
    const JournalContext& chosen = select(context);
    const Rows rows = query(std::string("SELECT ") + chosen.journalColumn + ", " + chosen.changeColumn +
                                " FROM change_journal WHERE volume_uuid = ? LIMIT 1;",
                            {qparam(uuid)});
    if (rows.empty()) {
        info::LogEntry(logger, info::level::debug)
            << chosen.getPrefix << " Did not find record for volume UUID: " << uuid;
        return false;
    }
    const std::vector<qparam>& row = rows.front();
    if (row.size() < 2) {
        throw std::runtime_error(std::string(chosen.getPrefix) + "Encountered unexpected response.");
    }
    journalId = columnToUnsigned(row[0]);
    changeId = columnToUnsigned(row[1]);
    return true;
}

void DataProvider::setVolumeJournalChangeId(const std::string& uuid, ChangeContext context,
                                            std::uint64_t journalId, std::uint64_t changeId) {
    const JournalContext& chosen = select(context);
    const os::Lock lock(mutex);
    QueryRunner runner = open();
    runner.RunUpdate(insertJournalRow, {qparam(uuid)});
    runner.RunUpdate(std::string("UPDATE change_journal SET ") + chosen.journalColumn + " = ?, " +
                         chosen.changeColumn + " = ? WHERE volume_uuid = ?;",
                     {unsignedParam(journalId), unsignedParam(changeId), qparam(uuid)});
    info::LogEntry(logger, info::level::debug)
        << chosen.setPrefix << " Setting journal id '" << journalId << "' change id '" << changeId
        << "' for volume (" << uuid << ")";
}

void DataProvider::setVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t blocks) {
    const os::Lock lock(mutex);
    QueryRunner runner = open();
    runner.RunUpdate(insertJournalRow, {qparam(uuid)});
    runner.RunUpdate("UPDATE change_journal SET incremental_size_blocks= ? WHERE volume_uuid = ?;",
                     {unsignedParam(blocks), qparam(uuid)});
    info::LogEntry(logger, info::level::debug)
        << "setVolumeIncrementalSizeBlocks() Setting incremental size '" << blocks << "' for volume (" << uuid
        << ")";
}

bool DataProvider::getVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t& blocks) {
    const Rows rows = query(
        "SELECT incremental_size_blocks FROM change_journal WHERE volume_uuid = ? LIMIT 1;", {qparam(uuid)});
    if (rows.empty()) {
        info::LogEntry(logger, info::level::debug)
            << "getVolumeIncrementalSizeBlocks() Did not find record for volume UUID: " << uuid;
        return false;
    }
    if (rows.front().empty()) {
        throw std::runtime_error("getVolumeIncrementalSizeBlocks() Encountered unexpected response.");
    }
    blocks = columnToUnsigned(rows.front().front());
    return true;
}

std::string DataProvider::getAgentUUID() {
    std::string stored = storedAgentUUID();
    if (!stored.empty()) {
        logger.log(info::level::info, "Agent installation UUID: %s", stored.c_str());
        return stored;
    }
    std::string generated = newAgentUUID();
    if (generated.empty()) {
        info::LogEntry(logger, info::level::info) << "Failed to generate new agentUUID";
        return {};
    }
    logger.log(info::level::info, "Generated new agentUUID: %s", generated.c_str());
    stored = storeIfMissing(agentUUIDKey, generated);
    if (stored != generated) {
        logger.log(info::level::info, "Agent installation UUID: %s", stored.c_str());
    }
    return stored;
}

QueryRunner DataProvider::open() {
    restrictToOwner(databasePath);
    return {logger, databasePath};
}

DataProvider::Rows DataProvider::query(const std::string& sql, const std::vector<qparam>& params) {
    const os::Lock lock(mutex);
    QueryRunner runner = open();
    Rows rows;
    runner.RunQuery(sql, params, rows);
    return rows;
}

DataProvider::Rows DataProvider::queryChecksum(const std::string& uuid) {
    try {
        return query("SELECT image_checksum, image_checksum_type FROM volumes WHERE volume_uuid = ? LIMIT 1;",
                     {qparam(uuid)});
    } catch (const exception::library_error& problem) {
        info::LogEntry(logger, info::level::error) << "QueryRunner problem: " << problem.what();
        throw std::runtime_error("getVolumeChecksum failed for volume: " + uuid);
    }
}

std::string DataProvider::storedAgentUUID() {
    try {
        return getConfigValue(agentUUIDKey);
    } catch (const std::exception&) {
        return {};
    }
}

/// Stores `value` unless the key has a value. There may be one although the last attempt to read it failed,
/// for example because another process had locked the database. Returns the value that is stored now.
std::string DataProvider::storeIfMissing(const std::string& key, const std::string& value) {
    const os::Lock lock(mutex);
    Rows rows;
    try {
        QueryRunner runner = open();
        runner.RunUpdate("delete from config where key = ? and ifnull(value, '') = '';", {qparam(key)});
        runner.RunUpdate("insert into config (key, value) select ?, ? "
                         "where not exists (select 1 from config where key = ?);",
                         {qparam(key), qparam(value), qparam(key)});
        runner.RunQuery("select value from config where key = ?;", {qparam(key)}, rows);
    } catch (const std::exception& problem) {
        failToSet(key, value, problem);
    }
    return rows.empty() ? value : rows.front().front().text;
}

/// Logs that the value can't be stored, and throws std::runtime_error.
void DataProvider::failToSet(const std::string& key, const std::string& value,
                             const std::exception& problem) {
    const std::string failure = "Unable to set value " + value + " for key " + key;
    info::LogEntry(logger, info::level::error) << failure << ": " << problem.what();
    throw std::runtime_error(failure);
}

std::string DataProvider::newAgentUUID() {
    try {
        return uuidGenerator.generate();
    } catch (const std::exception&) {
        return {};
    }
}

} // namespace agent::db
