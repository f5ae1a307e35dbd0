#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace zephane {

/// Why a client doesn't get what it asks for, as it is told.
class Refusal : public std::runtime_error {
public:
    /// `code` is a negative errno.
    Refusal(std::int32_t code, const std::string& text) : std::runtime_error(text), code(code) {}

    const std::int32_t code;
};

} // namespace zephane
