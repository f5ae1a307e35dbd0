#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace agent::ordak {

/// Collects the response to a log query: the newest lines and the newest errors.
/// Owns:    two lists, each of at most `limit` entries and 16 MiB of text; new entries displace the oldest.
/// Threads: one thread at a time.
/// Fails:   only throws std::bad_alloc.
class LogEntries {
public:
    struct Line {
        std::string message;
        int severity = 0;
        std::int64_t timestamp = 0; ///< Seconds since the epoch.
    };

    /// In bytes. Text of continuation lines beyond this is dropped.
    static constexpr std::size_t maxMessageBytes = 1024UL * 1024;
    static constexpr std::size_t maxListBytes = 16 * maxMessageBytes;

    explicit LogEntries(std::size_t limit) : limit(limit) {}

    void addLine(Line line);
    void addError(std::string text);
    /// Appends a line to the newest message. Returns false if there is no message.
    bool continueLine(const std::string& raw);

    /// Returns the lists as a JSON object; they are empty afterwards.
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
