#pragma once

#include <nlohmann/json_fwd.hpp>

#include <optional>

namespace agent {

/// Converts a JSON number to unsigned long: cuts off a fraction; a negative integer wraps around as it does
/// in C. Returns nothing if `value` is not a number, or is a fraction that unsigned long can't hold.
std::optional<unsigned long> asUnsigned(const nlohmann::json& value);

} // namespace agent
