#pragma once

#include "info/log/IDecorator.h"

namespace agent::info {

/// Puts the local time `YYYY-MM-DD HH:MM:SS.mmm` and a blank before a message. The width is fixed, so that
/// log files can be sorted and cut by columns. `undecorate` only returns whole milliseconds.
class DateDecorator : public IDecorator {
public:
    std::string decorate(const std::string& message, int level, LogTime time) override;
    std::string undecorate(const std::string& line, int& level, LogTime& time) override;
};

} // namespace agent::info
