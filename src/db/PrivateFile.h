#pragma once

#include <string>

namespace agent::db {

/// Creates a database file if it is missing, and makes it and SQLite's companion files readable and writable
/// by root only. Anybody who can read a database can lock it, and so prevent every write.
///
/// Call it while this process has no connection to the file. It reports no errors: if it fails, opening the
/// database fails as well, and reports the reason.
void keepPrivate(const std::string& path) noexcept;

} // namespace agent::db
