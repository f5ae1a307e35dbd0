#pragma once

#include <string>

namespace agent {

/// A path as text. Joining puts exactly one "/" between two parts, whatever slashes they bring along; the
/// empty path stands for the root, so joining to it makes a part absolute.
class Path {
public:
    Path() = default;
    // Implicit on purpose: callers mix texts and paths freely when they join.
    Path(std::string text); // NOLINT(google-explicit-constructor)
    Path(const char* text); // NOLINT(google-explicit-constructor)

    /// An empty part leaves this path as it is.
    [[nodiscard]] Path operator/(const Path& part) const;

    [[nodiscard]] const std::string& str() const noexcept { return text; }
    operator const std::string&() const noexcept { return text; } // NOLINT(google-explicit-constructor)

    /// The part before the last "/"; the root ("/") for a path directly below it, "." if there is none.
    [[nodiscard]] Path parent() const;

    bool operator==(const Path& other) const = default;

private:
    std::string text;
};

} // namespace agent
