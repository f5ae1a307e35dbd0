#include "info/log/MultiDecorator.h"

#include <utility>

namespace agent::info {

MultiDecorator::MultiDecorator(std::vector<IDecorator*> decorators) : decorators(std::move(decorators)) {}

std::string MultiDecorator::decorate(const std::string& message, int level, LogTime time) {
    std::string decorated = message;
    for (auto decorator = decorators.rbegin(); decorator != decorators.rend(); ++decorator) {
        decorated = (*decorator)->decorate(decorated, level, time);
    }
    return decorated;
}

std::string MultiDecorator::undecorate(const std::string& line, int& level, LogTime& time) {
    std::string rest = line;
    for (IDecorator* decorator : decorators) {
        rest = decorator->undecorate(rest, level, time);
    }
    return rest;
}

} // namespace agent::info
