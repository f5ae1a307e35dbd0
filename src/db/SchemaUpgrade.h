#pragma once

#include "db/QueryRunner.h"

/// The tables of the agent's database and their history. The file's user_version holds the schema version:
///   0  config, device, volumes
///   1  device got ip and agentUUID
///   2  volumes got image_checksum_type
///   3  change_journal
/// Upgrades only add tables and columns, so that every row survives them.
namespace agent::db {

/// Creates the tables of version 0 where they are missing.
void createTables(QueryRunner& runner);

/// Upgrades the tables from the file's schema version to the newest one. Leaves the tables of a newer agent
/// unchanged, after a warning. Throws std::runtime_error; it doesn't undo the steps before the failed one.
void upgradeSchema(info::Logger& logger, QueryRunner& runner);

} // namespace agent::db
