#pragma once

#include <cstddef>
#include <string>

namespace tools {

enum class Colour { none, green, yellow, red, bold };

/// How what is printed looks.
struct Screen {
    bool isColoured = false;
    std::size_t columns = 0; ///< 0 if lines may be as long as they like

    /// Of the standard output: colours and a width on a terminal only, and no colours where NO_COLOR is set.
    static Screen ofStandardOutput(bool mayColour);

    [[nodiscard]] std::string paint(Colour colour, const std::string& text) const;
};

} // namespace tools
