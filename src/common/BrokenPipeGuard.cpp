#include "common/BrokenPipeGuard.h"

#include <ctime>

namespace agent {

BrokenPipeGuard::BrokenPipeGuard() {
    sigemptyset(&brokenPipe);
    sigaddset(&brokenPipe, SIGPIPE);
    sigset_t pending;
    sigpending(&pending);
    wasPending = sigismember(&pending, SIGPIPE) == 1;
    pthread_sigmask(SIG_BLOCK, &brokenPipe, &previous);
}

BrokenPipeGuard::~BrokenPipeGuard() {
    if (!wasPending) {
        const timespec noWait{};
        sigtimedwait(&brokenPipe, nullptr, &noWait);
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

} // namespace agent
