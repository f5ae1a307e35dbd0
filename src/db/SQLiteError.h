#pragma once

#include "common/Exceptions.h"

#include <sqlite3.h>

#include <string>

namespace agent {

/// A failure of SQLite: a context text, the code and the words that the connection has for its last failure.
class SQLiteError : public exception::generic_library_error<int> {
public:
    /// `database` is read during construction only.
    SQLiteError(const std::string& context, sqlite3* database, int code);
};

} // namespace agent
