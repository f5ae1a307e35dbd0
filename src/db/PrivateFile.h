#pragma once

#include <string>

namespace agent::db {

/// Creates a database file if it is missing, and makes it and SQLite's companion files readable and writable
/// by root only. Anybody who can read a database can lock it, and so prevent every write.
///
/// Call it while this process has no connection to the file. It reports no errors; opening the database
/// afterwards does.
void restrictToOwner(const std::string& path) noexcept;

} // namespace agent::db
