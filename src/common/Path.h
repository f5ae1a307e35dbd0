#pragma once

#include <string>

namespace agent {

/// A path as text. Joining puts exactly one "/" between two parts, whatever slashes they end or begin with.
/// The empty path means the root, so joining a part to it makes the part absolute.
/// Owns:    its text.
/// Threads: as for any value: many readers, or one writer.
/// Fails:   only with std::bad_alloc.
class Path {
public:
    Path() = default;
    // Implicit on purpose: callers join strings and paths freely.
    Path(std::string text); // NOLINT(google-explicit-constructor)
    Path(const char* text); // NOLINT(google-explicit-constructor)

    /// An empty part leaves this path as it is.
    [[nodiscard]] Path operator/(const Path& part) const;

    [[nodiscard]] const std::string& str() const noexcept { return text; }
    operator const std::string&() const noexcept { return text; } // NOLINT(google-explicit-constructor)

    /// The part before the last "/": "/" for a path directly below the root, "." for a path without a "/".
    [[nodiscard]] Path parent() const;

    bool operator==(const Path& other) const = default;

private:
    std::string text;
};

} // namespace agent
