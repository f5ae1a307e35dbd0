#include "common/config/UnsignedNumber.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace agent {

std::optional<unsigned long> asUnsigned(const nlohmann::json& value) {
    if (value.is_number_integer()) {
        return value.get<unsigned long>();
    }
    if (!value.is_number_float()) {
        return std::nullopt;
    }
    // Converting a double that the target can't hold is undefined, so the range is checked first.
    const double whole = std::trunc(value.get<double>());
    const double limit = std::ldexp(1.0, 64);
    if (!(whole >= 0.0 && whole < limit)) {
        return std::nullopt;
    }
    return static_cast<unsigned long>(whole);
}

} // namespace agent
