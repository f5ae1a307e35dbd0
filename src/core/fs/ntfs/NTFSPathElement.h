#pragma once

#include <string>

namespace agent::core::fs {

/// A part of a path, as it is looked for in a directory.
/// Owns:    its text.
/// Threads: a value, for a thread that has an NTFSNameLocale.
/// Fails:   std::runtime_error.
class NTFSPathElement {
public:
    /// Throws if the text isn't UTF-8.
    explicit NTFSPathElement(std::string text);

    /// Negative if it comes before this name, 0 if they differ in upper and lower case only.
    [[nodiscard]] int compare(const std::wstring& name) const;
    /// Throws with the text between both.
    [[noreturn]] void fail(const char* reason, const char* rest = "") const;

private:
    std::string text;
    std::wstring wide;
};

} // namespace agent::core::fs
