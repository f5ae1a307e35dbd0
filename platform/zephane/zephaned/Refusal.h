#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace zephane {

/// Why the server refuses a client's request. The code and the text are sent to the client.
class Refusal : public std::runtime_error {
public:
    /// `code` is a negative errno.
    Refusal(std::int32_t code, const std::string& text) : std::runtime_error(text), code(code) {}

    const std::int32_t code;
};

} // namespace zephane
