#pragma once

#include <cstddef>
#include <string>

namespace tools {

enum class Colour { none, green, yellow, red, bold };

/// How output is formatted.
struct Screen {
    bool isColoured = false;
    std::size_t columns = 0; ///< 0 if lines may have any length

    /// For standard output: colours and a width only on a terminal, and no colours if NO_COLOR is set.
    static Screen ofStandardOutput(bool mayColour);

    [[nodiscard]] std::string paint(Colour colour, const std::string& text) const;
};

} // namespace tools
