#pragma once

#include "BackupLog.h"
#include "tools/common/Json.h"
#include "tools/common/Table.h"

namespace bekctl {

using tools::Json;
using tools::Table;

/// How all commands show the last backups of volumes.
Table recordTable();
/// Adds one row, and a note with the reasons if there are any.
void addRecord(Table& table, const BackupRecord& record);
Json jsonOf(const BackupRecord& record);
Json jsonOf(const agent::info::Reason& reason);

} // namespace bekctl
