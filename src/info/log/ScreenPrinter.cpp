#include "info/log/ScreenPrinter.h"

#include "common/BrokenPipeGuard.h"

#include <cstdio>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace agent::info {

void ScreenPrinter::print(const std::string& message, int /*level*/, LogTime /*time*/) {
    const BrokenPipeGuard guard;
    std::fwrite(message.data(), 1, message.size(), stdout);
    std::fflush(stdout);
    std::clearerr(stdout);
}

bool ScreenPrinter::isWatched() {
    constexpr unsigned memoryDevices = 1;
    constexpr unsigned nullDevice = 3;
    struct stat status{};
    return ::fstat(STDOUT_FILENO, &status) == 0 &&
           !(S_ISCHR(status.st_mode) && status.st_rdev == makedev(memoryDevices, nullDevice));
}

} // namespace agent::info
