#pragma once

#include "info/log/IDecorator.h"

namespace agent::info {

/// Puts the 12-character tag of the level before a message.
class TagDecorator : public IDecorator {
public:
    /// A message of level 5 or more stays unchanged.
    std::string decorate(const std::string& message, int level, LogTime time) override;
    std::string undecorate(const std::string& line, int& level, LogTime& time) override;
};

} // namespace agent::info
