#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace agent::core::script {

/// Splits a text that arrives in pieces into lines. A newline after a backslash doesn't end a line; both stay
/// part of the line.
/// Owns:    the line that is still incomplete.
/// Threads: one at a time.
/// Fails:   never; a line is truncated at `maxLineBytes`, because a script may print without any newline.
class LineSplitter {
public:
    using LineFunction = std::function<void(const std::string& line)>;

    /// In bytes. The rest of a longer line is dropped.
    static constexpr std::size_t maxLineBytes = std::size_t{64} * 1024;

    /// Calls `lineEnded` with each line that `piece` completes, without its newline.
    void add(std::string_view piece, const LineFunction& lineEnded);

private:
    void keep(std::string_view part);

    std::string pending;
    bool afterBackslash = false; // also if the backslash was dropped
};

} // namespace agent::core::script
