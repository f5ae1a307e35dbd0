#include "db/SQLiteError.h"

namespace agent {

// The library's name has always been spelled with two L in the logs; whoever searches them relies on it.
SQLiteError::SQLiteError(const std::string& context, sqlite3* database, int code)
    : generic_library_error(context, "SQLLite", code,
                            [database](int) -> std::string { return sqlite3_errmsg(database); }) {}

} // namespace agent
