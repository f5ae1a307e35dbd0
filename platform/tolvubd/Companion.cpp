#include "Companion.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tolvubd::companion {

namespace {

void closeOthers(int one, int other) {
    const auto low = static_cast<unsigned>(std::min(one, other));
    const auto high = static_cast<unsigned>(std::max(one, other));
    if (low > 0) {
        ::syscall(SYS_close_range, 0U, low - 1, 0U);
    }
    if (high > low + 1) {
        ::syscall(SYS_close_range, low + 1, high - 1, 0U);
    }
    ::syscall(SYS_close_range, high + 1, ~0U, 0U);
}

} // namespace

pid_t forkHidden() noexcept {
    sigset_t all{};
    sigset_t before{};
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const auto child = static_cast<pid_t>(::syscall(SYS_clone, 0UL, nullptr, nullptr, nullptr, 0UL));
    if (child != 0) {
        const int error = errno;
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
        errno = error;
    }
    return child;
}

std::optional<int> exitStatus(pid_t child) noexcept {
    int status = 0;
    pid_t ended = -1;
    do {
        ended = ::waitpid(child, &status, __WALL);
    } while (ended < 0 && errno == EINTR);
    return ended > 0 && WIFEXITED(status) ? std::optional(WEXITSTATUS(status)) : std::nullopt;
}

void prepareChild(const char* name, int one, int other) noexcept {
    ::prctl(PR_SET_NAME, name);
    ::setsid();
    closeOthers(one, other);
    [[maybe_unused]] const int moved = ::chdir("/"); // the child's own root directory, which always exists
}

void unblockSignal(int signal) noexcept {
    ::signal(signal, SIG_DFL);
    sigset_t one{};
    ::sigemptyset(&one);
    ::sigaddset(&one, signal);
    ::pthread_sigmask(SIG_UNBLOCK, &one, nullptr);
}

} // namespace tolvubd::companion
