#include "FreezeGuard.h"

#include "Failure.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <fcntl.h>
#include <linux/fs.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace tolvubd {

namespace {

constexpr int thawed = 0;
constexpr int impatient = 1;
constexpr int notFrozen = 2;

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

/// Waits until the other end says that it is over, by closing; each byte is a sign of life.
bool waitForTheEnd(int link) {
    std::array<char, 64> signs{};
    for (;;) {
        pollfd poll{link, POLLIN, 0};
        const int ready = ::poll(&poll, 1, FreezeGuard::patienceMilliseconds);
        if (ready == 0) {
            return false;
        }
        if (ready > 0 && ::read(link, signs.data(), signs.size()) == 0) {
            return true;
        }
    }
}

/// The life of the child. The program may have had threads when it was copied, whose locks nobody will ever
/// release: so only system calls from here on.
[[noreturn]] void guard(int root, int link) {
    ::prctl(PR_SET_NAME, "tolvubd-thaw");
    ::setsid(); // a signal to the program's process group isn't meant for the guard
    closeOthers(root, link);
    const bool patient = waitForTheEnd(link);
    const bool frozen = ::ioctl(root, FITHAW, 0) == 0;
    ::_exit(frozen ? (patient ? thawed : impatient) : notFrozen);
}

/// A copy of the process that nobody but its maker gets to see: its end sends no signal, and no other wait()
/// of the program finds it. Signals meant for the program don't reach it.
pid_t startGuard(int root, int link) {
    sigset_t all{};
    sigset_t before{};
    ::sigfillset(&all);
    ::pthread_sigmask(SIG_SETMASK, &all, &before);
    const auto child = static_cast<pid_t>(::syscall(SYS_clone, 0UL, nullptr, nullptr, nullptr, 0UL));
    if (child == 0) {
        guard(root, link);
    }
    const int error = errno;
    ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return child;
}

} // namespace

FreezeGuard::FreezeGuard(const std::string& mountPoint) : root(openFile(mountPoint, O_RDONLY | O_DIRECTORY)) {
    std::array<int, 2> ends{};
    checked(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), "connect the guard");
    link = os::FileDescriptor(ends[0]);
    const os::FileDescriptor childEnd(ends[1]);
    child = checked(startGuard(root.get(), childEnd.get()), "start the guard");
    if (::ioctl(root.get(), FIFREEZE, 0) != 0) {
        const int error = errno;
        // What somebody else has frozen is not ours to thaw.
        ::kill(child, SIGKILL);
        endChild();
        fail(error, "freeze " + mountPoint);
    }
}

FreezeGuard::~FreezeGuard() {
    if (child > 0 && !endChild()) {
        ::ioctl(root.get(), FITHAW, 0);
    }
}

void FreezeGuard::reportProgress() {
    const char sign = 0;
    if (::send(link.get(), &sign, sizeof sign, MSG_NOSIGNAL | MSG_DONTWAIT) < 0 && errno != EAGAIN) {
        fail(ETIMEDOUT, "stay frozen");
    }
}

void FreezeGuard::thaw() {
    if (!endChild()) {
        ::ioctl(root.get(), FITHAW, 0); // had the child been killed, it would still be frozen
        fail(ETIMEDOUT, "stay frozen");
    }
}

bool FreezeGuard::endChild() noexcept {
    link.reset();
    int status = 0;
    pid_t ended = -1;
    do {
        ended = ::waitpid(child, &status, __WALL);
    } while (ended < 0 && errno == EINTR);
    child = -1;
    return ended > 0 && WIFEXITED(status) && WEXITSTATUS(status) == thawed;
}

void thawIfFrozen(const std::string& mountPoint) noexcept {
    const os::FileDescriptor root(::open(mountPoint.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ::ioctl(root.get(), FITHAW, 0);
}

} // namespace tolvubd
