#include "db/SchemaUpgrade.h"

#include <stdexcept>

namespace agent::db {

namespace {

constexpr std::int64_t newestVersion = 3;

constexpr const char* createConfig =
    "create table if not exists config (id integer primary key autoincrement "
    "not null, key text not null, value text null);";
constexpr const char* createDevice = "create table if not exists device (id integer not null);";
constexpr const char* createVolumes = "CREATE TABLE IF NOT EXISTS volumes ( volume_uuid TEXT PRIMARY KEY NOT "
                                      "NULL, image_checksum TEXT NOT NULL "
                                      "DEFAULT '0', backup_status TEXT NOT NULL DEFAULT 'unknown');";
constexpr const char* createChangeJournal =
    "create table if not exists change_journal (\n"
    "                    volume_uuid TEXT PRIMARY KEY NOT NULL,\n"
    "                    current_journal_id INTEGER NOT NULL DEFAULT '0',\n"
    "                    current_journal_change_id INTEGER NOT NULL DEFAULT '0',\n"
    "                    next_journal_id INTEGER NOT NULL DEFAULT '0',\n"
    "                    next_journal_change_id INTEGER NOT NULL DEFAULT '0',\n"
    "                    incremental_size_blocks INTEGER NOT NULL DEFAULT '0');";

std::int64_t queryUserVersion(QueryRunner& runner) {
    std::vector<std::vector<qparam>> rows;
    runner.RunQuery("PRAGMA user_version;", {}, rows);
    if (rows.empty()) {
        throw std::runtime_error("Could not get db user_version.");
    }
    const qparam& version = rows.front().front();
    if (!version.isNumber()) {
        throw std::runtime_error("user_version query failed.");
    }
    return version.number;
}

std::int64_t getUserVersion(info::Logger& logger, QueryRunner& runner) {
    try {
        return queryUserVersion(runner);
    } catch (const std::exception& problem) {
        info::LogEntry(logger, info::level::error) << "Could not get db schema version: " << problem.what();
        throw std::runtime_error("upgradeSchema failed!");
    }
}

// No agent has ever written a version below 0; such a file is treated like version 0.
void addMissingTablesAndColumns(QueryRunner& runner, std::int64_t version) {
    if (version < 1) {
        runner.RunUpdate("ALTER TABLE device ADD COLUMN ip TEXT DEFAULT \"\";", {});
        runner.RunUpdate("ALTER TABLE device ADD COLUMN agentUUID TEXT DEFAULT \"\";", {});
    }
    if (version < 2) {
        runner.RunUpdate("ALTER TABLE volumes ADD COLUMN image_checksum_type TEXT DEFAULT \"unknown\";", {});
    }
    if (version < 3) {
        runner.RunUpdate(createChangeJournal, {});
    }
}

void applyUpgrades(info::Logger& logger, QueryRunner& runner, std::int64_t version) {
    try {
        addMissingTablesAndColumns(runner, version);
    } catch (const std::exception& problem) {
        info::LogEntry(logger, info::level::error) << problem.what();
        throw std::runtime_error("upgradeSchema failed!");
    }
}

} // namespace

void createTables(QueryRunner& runner) {
    runner.RunUpdate(createConfig, {});
    runner.RunUpdate(createDevice, {});
    runner.RunUpdate(createVolumes, {});
}

void upgradeSchema(info::Logger& logger, QueryRunner& runner) {
    std::int64_t version = getUserVersion(logger, runner);
    info::LogEntry(logger, info::level::debug) << "Found db schema version: " << version;
    if (version > newestVersion) {
        info::LogEntry(logger, info::level::warning)
            << "This is a database newer than what this agent is prepared for,"
            << " continue at your own risk";
    } else {
        applyUpgrades(logger, runner, version);
        version = newestVersion;
    }
    runner.RunUpdate("PRAGMA user_version = " + std::to_string(version) + ";", {});
}

} // namespace agent::db
