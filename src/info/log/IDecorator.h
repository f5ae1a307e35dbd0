#pragma once

#include "info/log/PrinterFunction.h"

#include <string>

namespace agent::info {

/// Adds a part to each log line, and takes it off again when a log file is read back.
/// Owns:    nothing.
/// Threads: stateless; safe from any.
/// Fails:   `undecorate` throws std::logic_error on a line that doesn't carry this decorator's part.
class IDecorator {
public:
    virtual ~IDecorator() = default;
    virtual std::string decorate(const std::string& message, int level, LogTime time) = 0;
    /// Returns the line without this decorator's part. Sets only those of `level` and `time` that the part
    /// tells, and neither on failure.
    virtual std::string undecorate(const std::string& line, int& level, LogTime& time) = 0;
};

} // namespace agent::info
