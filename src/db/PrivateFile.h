#pragma once

#include <string>

namespace agent::db {

/// Makes a database file that is missing, and leaves it and the files that SQLite keeps beside it readable
/// and writable by root only. Whoever can read a database can lock it, and keep its owner from every write.
///
/// To be called while this process has no connection to the file. Fails never: what can't be made or changed
/// is left to the opening that follows, which says what is wrong.
void keepPrivate(const std::string& path) noexcept;

} // namespace agent::db
