#include "info/log/ScreenPrinter.h"

#include <csignal>
#include <cstdio>
#include <ctime>

namespace agent::info {

namespace {

/// Holds SIGPIPE back from this thread, and swallows the one that a write in its scope has raised. A broken
/// pipe would otherwise end the process, or cancel a running backup, because somebody closed a terminal.
class BrokenPipeGuard {
public:
    BrokenPipeGuard() {
        sigemptyset(&brokenPipe);
        sigaddset(&brokenPipe, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &brokenPipe, &previous);
    }
    BrokenPipeGuard(const BrokenPipeGuard&) = delete;
    BrokenPipeGuard& operator=(const BrokenPipeGuard&) = delete;
    ~BrokenPipeGuard() {
        if (!wasPending) {
            const timespec noWait{};
            sigtimedwait(&brokenPipe, nullptr, &noWait);
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    }

private:
    sigset_t brokenPipe{};
    sigset_t previous{};
    bool wasPending = false;
};

} // namespace

void ScreenPrinter::print(const std::string& message, int /*level*/, LogTime /*time*/) {
    const BrokenPipeGuard guard;
    std::fwrite(message.data(), 1, message.size(), stdout);
    std::fflush(stdout);
    std::clearerr(stdout);
}

} // namespace agent::info
