#pragma once

#include "info/log/IDecorator.h"

#include <vector>

namespace agent::info {

/// Several decorators as one: applied from the last to the first, so that the first one's part ends up in
/// front, and taken off from the first to the last. The decorators must outlive it.
class MultiDecorator : public IDecorator {
public:
    explicit MultiDecorator(std::vector<IDecorator*> decorators);
    std::string decorate(const std::string& message, int level, LogTime time) override;
    std::string undecorate(const std::string& line, int& level, LogTime& time) override;

private:
    std::vector<IDecorator*> decorators;
};

} // namespace agent::info
