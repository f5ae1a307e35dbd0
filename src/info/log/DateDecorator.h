#pragma once

#include "info/log/IDecorator.h"

namespace agent::info {

/// Puts the local time `YYYY-MM-DD HH:MM:SS.mmm` and a blank before a message. Fixed width, so that a log
/// file sorts and cuts by columns; what lies below a millisecond is lost on the way back.
class DateDecorator : public IDecorator {
public:
    std::string decorate(const std::string& message, int level, LogTime time) override;
    std::string undecorate(const std::string& line, int& level, LogTime& time) override;
};

} // namespace agent::info
