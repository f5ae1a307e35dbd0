#pragma once

#include "db/QueryRunner.h"

/// The tables of the agent's database and their history. The version is kept in the file's user_version:
///   0  config, device, volumes
///   1  device got ip and agentUUID
///   2  volumes got image_checksum_type
///   3  change_journal
/// Upgrades only ever add, so that every row survives them.
namespace agent::db {

/// Creates the tables of version 0 where they are missing.
void createTables(QueryRunner& runner);

/// Brings the tables from the version that the file bears to the newest one. A file of a newer agent is
/// used as it is, after a warning. Throws std::runtime_error; steps that were done before stay done.
void upgradeSchema(info::Logger& logger, QueryRunner& runner);

} // namespace agent::db
