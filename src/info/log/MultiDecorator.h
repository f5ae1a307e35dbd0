#pragma once

#include "info/log/IDecorator.h"

#include <vector>

namespace agent::info {

/// Combines several decorators. `decorate` applies them from the last to the first, so that the first
/// decorator's field comes first in the line. `undecorate` removes the fields from the first to the last; if
/// it throws, it may have set `level` or `time` already. The decorators must outlive this object.
class MultiDecorator : public IDecorator {
public:
    explicit MultiDecorator(std::vector<IDecorator*> decorators);
    std::string decorate(const std::string& message, int level, LogTime time) override;
    std::string undecorate(const std::string& line, int& level, LogTime& time) override;

private:
    std::vector<IDecorator*> decorators;
};

} // namespace agent::info
