#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace agent::db {

/// A value that is written to or read from the database: a bound parameter or a column of a result.
struct qparam {
    static constexpr std::int32_t typeNone = 0; ///< NULL, or a column that is neither integer nor text.
    static constexpr std::int32_t typeInt32 = 1;
    static constexpr std::int32_t typeInt64 = 2;
    static constexpr std::int32_t typeText = 3;

    qparam() = default;
    explicit qparam(std::int32_t value) : type(typeInt32), number(value) {}
    explicit qparam(std::int64_t value) : type(typeInt64), number(value) {}
    explicit qparam(std::string value) : type(typeText), text(std::move(value)) {}

    [[nodiscard]] bool isNumber() const noexcept { return type == typeInt32 || type == typeInt64; }
    /// Returns 0 if the value is not a number.
    [[nodiscard]] std::int64_t asNumber() const noexcept { return isNumber() ? number : 0; }

    bool operator==(const qparam& other) const = default;

    std::int32_t type = typeNone;
    std::int64_t number = 0;
    std::string text;
};

} // namespace agent::db
