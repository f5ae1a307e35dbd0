#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <limits>
#include <optional>

namespace agent {

/// Converts a JSON number to an integer and cuts off a fraction. Returns nothing if `value` is not a number,
/// or if the integer type can't hold it: no conversion wraps around. Integer is std::int32_t, std::int64_t or
/// std::uint64_t.
template <typename Integer>
std::optional<Integer> wholeNumber(const nlohmann::json& value);

/// Like `wholeNumber`, but throws the JSON library's type or range error instead of returning nothing, and
/// the range error for a number above `maxValue`.
template <typename Integer>
Integer requireWholeNumber(const nlohmann::json& value,
                           Integer maxValue = std::numeric_limits<Integer>::max());

} // namespace agent
