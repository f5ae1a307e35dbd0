#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <limits>
#include <optional>

namespace agent {

/// A JSON number as an integer, a fraction cut off. Nothing for a value that is no number, and for a number
/// that the integer can't hold: no conversion wraps around. For std::int32_t, std::int64_t and std::uint64_t.
template <typename Integer>
std::optional<Integer> wholeNumber(const nlohmann::json& value);

/// As `wholeNumber`; throws the JSON library's type or range error where that has nothing, and for more than
/// `largest`.
template <typename Integer>
Integer requireWholeNumber(const nlohmann::json& value,
                           Integer largest = std::numeric_limits<Integer>::max());

} // namespace agent
