#pragma once

#include "info/log/Logger.h"
#include "os/Mutex.h"

#include <algorithm>
#include <string>
#include <vector>

namespace agent::test {

/// A logger that records its lines. Lines are stored without the newline and without the mark of their
/// reason; reasons are stored separately.
/// Owns:    the recorded lines; must outlive everything that logs to it.
/// Threads: safe from any.
/// Fails:   never.
class RecordingLogger {
public:
    struct Line {
        int level;
        std::string text;
        bool operator==(const Line&) const = default;
    };

    info::Logger logger{
        [this](const std::string& message, int level, info::LogTime) { record(message, level); }};

    [[nodiscard]] std::vector<Line> lines() const {
        const os::Lock lock(mutex);
        return recorded;
    }

    /// The codes of all logged reasons of this kind, in order.
    [[nodiscard]] std::vector<std::string> codes(info::Reason::Kind kind) const {
        const os::Lock lock(mutex);
        std::vector<std::string> found;
        for (const info::Reason* const each : told) {
            if (each->kind == kind) {
                found.emplace_back(each->code);
            }
        }
        return found;
    }

    /// The texts of the lines of this level.
    [[nodiscard]] std::vector<std::string> texts(int level) const {
        std::vector<std::string> found;
        for (const Line& line : lines()) {
            if (line.level == level) {
                found.push_back(line.text);
            }
        }
        return found;
    }

    [[nodiscard]] bool has(int level, const std::string& text) const { return count(level, text) > 0; }

    [[nodiscard]] std::ptrdiff_t count(int level, const std::string& text) const {
        const os::Lock lock(mutex);
        return std::count(recorded.begin(), recorded.end(), Line{level, text});
    }

    /// True if a line of this level contains `part`.
    [[nodiscard]] bool hasPart(int level, const std::string& part) const {
        const os::Lock lock(mutex);
        return std::any_of(recorded.begin(), recorded.end(), [&](const Line& line) {
            return line.level == level && line.text.find(part) != std::string::npos;
        });
    }

    void clear() {
        const os::Lock lock(mutex);
        recorded.clear();
        told.clear();
    }

private:
    void record(const std::string& message, int level) {
        const os::Lock lock(mutex);
        std::string text = message.ends_with('\n') ? message.substr(0, message.size() - 1) : message;
        if (const info::Reason* const reason = info::findReason(text)) {
            text.resize(text.size() - info::markOf(*reason).size());
            told.push_back(reason);
        }
        recorded.push_back({level, text});
    }

    mutable os::Mutex mutex;
    std::vector<Line> recorded GUARDED_BY(mutex);
    std::vector<const info::Reason*> told GUARDED_BY(mutex);
};

inline void PrintTo(const RecordingLogger::Line& line, std::ostream* out) {
    *out << line.level << " " << line.text;
}

} // namespace agent::test
