#pragma once

#include "info/log/PrinterFunction.h"

#include <string>

namespace agent::info {

/// Adds a field to each log line, such as the date, and removes it again when a log file is read back.
/// Owns:    nothing.
/// Threads: any thread may call it; decorators have no state.
/// Fails:   `undecorate` throws std::logic_error for a line without this decorator's field.
class IDecorator {
public:
    virtual ~IDecorator() = default;
    virtual std::string decorate(const std::string& message, int level, LogTime time) = 0;
    /// Returns the line without this decorator's field. Sets `level` or `time` only if the field contains it.
    virtual std::string undecorate(const std::string& line, int& level, LogTime& time) = 0;
};

} // namespace agent::info
