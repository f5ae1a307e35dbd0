#pragma once

#include "common/Exceptions.h"

#include <sqlite3.h>

#include <string>

namespace agent {

/// A failure of SQLite: a context text, the error code and the connection's message for its last error.
class SQLiteError : public exception::generic_library_error<int> {
public:
    /// Only the constructor uses `database`.
    SQLiteError(const std::string& context, sqlite3* database, int code);
};

} // namespace agent
