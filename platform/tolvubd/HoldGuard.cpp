#include "HoldGuard.h"

#include "Failure.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

namespace tolvubd {

namespace {

constexpr int released = 0;
constexpr int impatient = 1;
constexpr int notHeld = 2;

/// Keeps two descriptors only: no lock, no connection of the program is held open by the child.
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

bool waitUntilReadable(int link) {
    pollfd poll{link, POLLIN, 0};
    int ready = -1;
    do {
        ready = ::poll(&poll, 1, HoldGuard::patienceMilliseconds);
    } while (ready < 0);
    return ready > 0;
}

/// Waits until the other end says that it is over, by closing; each byte is a sign of life.
bool waitForTheEnd(int link) {
    std::array<char, 64> signs{};
    while (waitUntilReadable(link)) {
        if (::read(link, signs.data(), signs.size()) == 0) {
            return true;
        }
    }
    return false;
}

bool sendSign(int link) {
    const char sign = 0;
    return ::send(link, &sign, sizeof sign, MSG_NOSIGNAL | MSG_DONTWAIT) >= 0 || errno == EAGAIN;
}

/// The life of the child. The program may have had threads when it was copied, whose locks nobody will ever
/// release: so only system calls from here on. Closing a file may have to wait for the file system that is to
/// be held, so it is told when that is over.
[[noreturn]] void guard(Hold& hold, int link) {
    ::prctl(PR_SET_NAME, "tolvubd-guard");
    ::setsid(); // a signal to the program's process group isn't meant for the guard
    closeOthers(hold.descriptor(), link);
    sendSign(link);
    const bool patient = waitForTheEnd(link);
    const bool wasHeld = hold.end();
    ::_exit(wasHeld ? (patient ? released : impatient) : notHeld);
}

/// A copy of the process that nobody but its maker gets to see: its end sends no signal, and no other wait()
/// of the program finds it. Signals meant for the program don't reach it.
pid_t startGuard(Hold& hold, int link) {
    sigset_t all{};
    sigset_t before{};
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const auto child = static_cast<pid_t>(::syscall(SYS_clone, 0UL, nullptr, nullptr, nullptr, 0UL));
    if (child == 0) {
        guard(hold, link);
    }
    const int error = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return child;
}

} // namespace

HoldGuard::HoldGuard(std::unique_ptr<Hold> hold) : hold(std::move(hold)) {
    startChild();
    try {
        this->hold->begin();
    } catch (...) {
        killChild(); // what somebody else holds is not ours to let go
        throw;
    }
}

void HoldGuard::startChild() {
    std::array<int, 2> ends{};
    checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), "connect the guard");
    link = os::FileDescriptor(ends[0]);
    {
        const os::FileDescriptor childEnd(ends[1]);
        child = checked(startGuard(*hold, childEnd.get()), "start the guard");
    }
    char ready = 0;
    if (!waitUntilReadable(link.get()) || ::recv(link.get(), &ready, sizeof ready, 0) != sizeof ready) {
        killChild();
        fail(ETIMEDOUT, "start the guard");
    }
}

HoldGuard::~HoldGuard() {
    if (child > 0 && !endChild()) {
        hold->end();
    }
}

void HoldGuard::reportProgress() {
    if (!sendSign(link.get())) {
        fail(ETIMEDOUT, "hold the volume");
    }
}

void HoldGuard::release() {
    if (!endChild()) {
        hold->end(); // had the child been killed, it would still be held
        fail(ETIMEDOUT, "hold the volume");
    }
}

void HoldGuard::killChild() noexcept {
    ::kill(child, SIGKILL);
    endChild();
}

bool HoldGuard::endChild() noexcept {
    link.reset();
    int status = 0;
    pid_t ended = -1;
    do {
        ended = ::waitpid(child, &status, __WALL);
    } while (ended < 0 && errno == EINTR);
    child = -1;
    return ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == released;
}

} // namespace tolvubd
