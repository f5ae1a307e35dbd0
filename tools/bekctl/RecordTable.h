#pragma once

#include "BackupLog.h"
#include "tools/common/Json.h"
#include "tools/common/Table.h"

namespace bekctl {

using tools::Json;
using tools::Table;

/// How the last backups of volumes are shown, by every command that does.
Table recordTable();
/// One row, and a note with the reasons if there are any.
void addRecord(Table& table, const BackupRecord& record);
Json jsonOf(const BackupRecord& record);
Json jsonOf(const agent::info::Reason& reason);

} // namespace bekctl
