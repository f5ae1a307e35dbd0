#include "db/SQLiteError.h"

namespace agent {

// The log has always spelled the library's name with two L; scripts that search the log rely on it.
SQLiteError::SQLiteError(const std::string& context, sqlite3* database, int code)
    : generic_library_error(context, "SQLLite", code,
                            [database](int) -> std::string { return sqlite3_errmsg(database); }) {}

} // namespace agent
