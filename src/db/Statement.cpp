#include "db/Statement.h"

#include <algorithm>
#include <limits>

namespace agent::db {

namespace {

// SQLite takes lengths as int. A longer text also exceeds SQLite's own limits, so SQLite refuses the clamped
// length instead of storing only part of the text.
int lengthOf(const std::string& text) {
    constexpr std::size_t maxBytes = std::numeric_limits<int>::max();
    return static_cast<int>(std::min(text.size(), maxBytes));
}

int bindOne(sqlite3_stmt* statement, int position, const qparam& param) {
    switch (param.type) {
    case qparam::typeInt32:
        return sqlite3_bind_int(statement, position, static_cast<int>(param.number));
    case qparam::typeInt64:
        return sqlite3_bind_int64(statement, position, param.number);
    case qparam::typeText:
        return sqlite3_bind_text(statement, position, param.text.data(), lengthOf(param.text),
                                 SQLITE_TRANSIENT);
    default:
        return SQLITE_MISUSE;
    }
}

// If memory is exhausted, SQLite returns a null pointer here and fails the next step, so the empty text is
// never taken for the stored one. sqlite3_column_bytes must come second, because sqlite3_column_text may
// convert the value.
std::string textOf(sqlite3_stmt* statement, int index) {
    const void* bytes = sqlite3_column_text(statement, index);
    const int length = sqlite3_column_bytes(statement, index);
    return bytes == nullptr ? std::string()
                            : std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(length));
}

} // namespace

int Statement::prepare(sqlite3* database, const std::string& sql) noexcept {
    return sqlite3_prepare_v2(database, sql.c_str(), lengthOf(sql), &handle, nullptr);
}

std::size_t Statement::bind(const std::vector<qparam>& params) noexcept {
    for (std::size_t position = 1; position <= params.size(); ++position) {
        if (bindOne(handle, static_cast<int>(position), params[position - 1]) != SQLITE_OK) {
            return position;
        }
    }
    return 0;
}

qparam Statement::column(int index) const {
    switch (sqlite3_column_type(handle, index)) {
    case SQLITE_INTEGER:
        return qparam(std::int64_t{sqlite3_column_int64(handle, index)});
    case SQLITE_TEXT:
        return qparam(textOf(handle, index));
    default:
        return {};
    }
}

} // namespace agent::db
