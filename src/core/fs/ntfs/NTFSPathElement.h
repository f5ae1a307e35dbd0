#pragma once

#include <string>

namespace agent::core::fs {

/// A part of a path, to be looked up in a directory.
/// Owns:    its text.
/// Threads: immutable; only on threads that have an NTFSNameLocale.
/// Fails:   the constructor and `fail` throw std::runtime_error.
class NTFSPathElement {
public:
    /// Throws if the text isn't UTF-8.
    explicit NTFSPathElement(std::string text);

    /// Negative if this element comes before `name`, 0 if they are equal except for upper and lower case.
    [[nodiscard]] int compare(const std::wstring& name) const;
    /// Throws std::runtime_error with `reason`, the element's text and `rest`.
    [[noreturn]] void fail(const char* reason, const char* rest = "") const;

private:
    std::string text;
    std::wstring wide;
};

} // namespace agent::core::fs
