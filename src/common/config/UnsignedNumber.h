#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>

namespace agent {

/// A JSON number as an unsigned one: a fraction is cut off, a negative integer wraps around as it does in C.
/// Nothing for a value that is no number, or a fraction that no unsigned long can hold.
std::optional<unsigned long> asUnsigned(const nlohmann::json& value);

} // namespace agent
