#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace agent::ordak {

/// The answer of a log query while it is collected: the newest lines, and the newest problems met.
/// Owns:    at most `limit` entries in either list and 16 MiB of text in either; the oldest entries make way.
/// Threads: one at a time.
/// Fails:   never, but for want of memory.
class LogEntries {
public:
    struct Line {
        std::string message;
        int severity = 0;
        std::int64_t timestamp = 0; ///< Seconds since the epoch.
    };

    /// In bytes. What continuation lines bring beyond them is dropped.
    static constexpr std::size_t longestMessage = 1024UL * 1024;
    static constexpr std::size_t largestList = 16 * longestMessage;

    explicit LogEntries(std::size_t limit) : limit(limit) {}

    void addLine(Line line);
    void addError(std::string text);
    /// Appends a line to the newest message. False if there is none.
    bool continueLine(const std::string& raw);

    /// The lists as a JSON object; they are empty afterwards.
    nlohmann::json release();

private:
    void dropOldestLine();
    void dropOldestError();

    std::size_t limit;
    std::deque<Line> lines;
    std::size_t lineBytes = 0; // of all messages
    std::deque<std::string> errors;
    std::size_t errorBytes = 0;
};

} // namespace agent::ordak
