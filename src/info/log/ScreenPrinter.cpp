#include "info/log/ScreenPrinter.h"

#include "common/BrokenPipeGuard.h"

#include <cstdio>

namespace agent::info {

void ScreenPrinter::print(const std::string& message, int /*level*/, LogTime /*time*/) {
    const BrokenPipeGuard guard;
    std::fwrite(message.data(), 1, message.size(), stdout);
    std::fflush(stdout);
    std::clearerr(stdout);
}

} // namespace agent::info
