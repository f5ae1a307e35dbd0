#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace zephane {

/// Why a client doesn't get what it asks for. The client is told the code and the text.
class Refusal : public std::runtime_error {
public:
    /// `code` is a negative errno.
    Refusal(std::int32_t code, const std::string& text) : std::runtime_error(text), code(code) {}

    const std::int32_t code;
};

} // namespace zephane
