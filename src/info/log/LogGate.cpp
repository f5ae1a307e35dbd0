#include "info/log/LogGate.h"

#include <utility>

namespace agent::info {

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
thread_local const LogGate* LogGate::current = nullptr;

LogGate::LogGate(Wait wait) : wait(std::move(wait)) {
    current = this;
}

LogGate::~LogGate() {
    current = nullptr;
}

} // namespace agent::info
