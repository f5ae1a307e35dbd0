#include "info/log/LogTurn.h"

#include <utility>

namespace agent::info {

// NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
thread_local const LogTurn* LogTurn::current = nullptr;

LogTurn::LogTurn(Wait wait) : wait(std::move(wait)) {
    current = this;
}

LogTurn::~LogTurn() {
    current = nullptr;
}

} // namespace agent::info
