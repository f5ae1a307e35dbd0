#include "common/json/WholeNumber.h"

#include <nlohmann/json.hpp>

#include <cmath>
#include <limits>
#include <string>
#include <utility>

namespace agent {

namespace {

using nlohmann::json;

// The JSON library's numbers for two of its errors: an unexpected type, and a number that is out of range.
constexpr int typeErrorId = 302;
constexpr int rangeErrorId = 406;

/// Converting a double that the target can't hold is undefined, so the range is checked first.
template <typename Integer>
std::optional<Integer> fromFraction(double fraction) {
    const double whole = std::trunc(fraction);
    const double limit = std::ldexp(1.0, std::numeric_limits<Integer>::digits);
    const double lowest = std::numeric_limits<Integer>::is_signed ? -limit : 0.0;
    if (!(whole >= lowest && whole < limit)) {
        return std::nullopt;
    }
    return static_cast<Integer>(whole);
}

template <typename Integer, typename Stored>
std::optional<Integer> fromInteger(Stored number) {
    return std::in_range<Integer>(number) ? std::optional(static_cast<Integer>(number)) : std::nullopt;
}

} // namespace

template <typename Integer>
std::optional<Integer> wholeNumber(const json& value) {
    if (value.is_number_float()) {
        return fromFraction<Integer>(value.get<double>());
    }
    if (value.is_number_unsigned()) {
        return fromInteger<Integer>(value.get<json::number_unsigned_t>());
    }
    if (value.is_number_integer()) {
        return fromInteger<Integer>(value.get<json::number_integer_t>());
    }
    return std::nullopt;
}

template <typename Integer>
Integer requireWholeNumber(const json& value, Integer maxValue) {
    const std::optional<Integer> number = wholeNumber<Integer>(value);
    if (number && *number <= maxValue) {
        return *number;
    }
    if (value.is_number()) {
        throw json::out_of_range::create(rangeErrorId, "number out of range: " + value.dump(), &value);
    }
    throw json::type_error::create(typeErrorId,
                                   std::string("type must be number, but is ") + value.type_name(), &value);
}

template std::optional<std::int32_t> wholeNumber(const json& value);
template std::optional<std::int64_t> wholeNumber(const json& value);
template std::optional<std::uint64_t> wholeNumber(const json& value);
template std::int32_t requireWholeNumber(const json& value, std::int32_t maxValue);
template std::int64_t requireWholeNumber(const json& value, std::int64_t maxValue);
template std::uint64_t requireWholeNumber(const json& value, std::uint64_t maxValue);

} // namespace agent
