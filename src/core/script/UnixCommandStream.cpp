#include "core/script/UnixCommandStream.h"

#include "common/PosixError.h"
#include "os/Transfer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <ratio>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>
#include <utility>

namespace agent::core::script {

namespace {

using std::chrono::steady_clock;

constexpr std::size_t readStep = 256;
/// Limits one call of readAvailable, so that a child that prints without pause can't exhaust the memory or
/// outlast the caller's time-out.
constexpr std::size_t maxReadBytes = std::size_t{1024} * 1024;
constexpr int nanosecondsPerMicrosecond = 1'000;

/// The action of SIGCHLD before it was set to the default.
struct ChldAction {
    struct ::sigaction previous{};
    bool replaced = false;

    bool putBack() noexcept {
        replaced = false;
        return ::sigaction(SIGCHLD, &previous, nullptr) == 0;
    }
};
using ChldHandle = std::shared_ptr<ChldAction>;

/// Sets SIGCHLD to its default action until the handle is destroyed. A child that ends then stays a zombie
/// until it is waited for, and no handler of the agent interrupts a system call.
ChldHandle restartChld(bool throwOnFailure) {
    ChldHandle handle(std::make_unique<ChldAction>().release(), [](ChldAction* action) noexcept {
        const std::unique_ptr<ChldAction> owner(action);
        if (action->replaced) {
            action->putBack();
        }
    });
    struct ::sigaction restart{};
    restart.sa_handler = SIG_DFL;
    sigemptyset(&restart.sa_mask);
    restart.sa_flags = SA_RESTART;
    handle->replaced = ::sigaction(SIGCHLD, &restart, &handle->previous) == 0;
    if (!handle->replaced && throwOnFailure) {
        throw PosixError("sigaction failed!", errno);
    }
    return handle;
}

/// Runs `operation` while SIGCHLD has its default action. Restores the previous action here and not in the
/// handle's deleter, which couldn't throw if that fails. After an exception the deleter restores it, because
/// the first failure counts.
template <typename Operation>
auto guarded(Operation operation) {
    const ChldHandle guard = restartChld(true);
    const auto result = operation();
    if (!guard->putBack()) {
        throw PosixError("sigaction failed!", errno);
    }
    return result;
}

/// Blocks all signals of this thread during the fork. Otherwise a signal that reaches the child before its
/// exec would run a handler of the agent there, on copies of the agent's memory and descriptors.
class SignalsBlocked {
public:
    SignalsBlocked() noexcept {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, &previous);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

private:
    sigset_t previous{};
};

/// Moves a descriptor above the standard ones, which the child replaces with the pipe. A new descriptor only
/// has a standard number if the agent was started with a standard descriptor closed.
os::FileDescriptor aboveStandard(os::FileDescriptor descriptor) {
    if (descriptor.get() > STDERR_FILENO) {
        return descriptor;
    }
    os::FileDescriptor moved(::fcntl(descriptor.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    if (!moved) {
        throw PosixError("pipe failed!", errno);
    }
    return moved;
}

std::pair<os::FileDescriptor, os::FileDescriptor> makePipe() {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw PosixError("pipe failed!", errno);
    }
    os::FileDescriptor readEnd(ends[0]);
    os::FileDescriptor writeEnd(ends[1]);
    return {aboveStandard(std::move(readEnd)), aboveStandard(std::move(writeEnd))};
}

// The following functions run in the child. Other threads of the agent may have held any lock at the time of
// the fork, so everything before the exec must be async-signal-safe: no allocation, no stdio, no exit
// handlers.

/// Prints what perror would print, and ends the child.
[[noreturn]] void fail(const char* step) noexcept {
    const char* reason = ::strerrordesc_np(errno);
    os::writeAll(STDERR_FILENO, step);
    os::writeAll(STDERR_FILENO, ": ");
    os::writeAll(STDERR_FILENO, reason != nullptr ? reason : "Unknown error");
    os::writeAll(STDERR_FILENO, "\n");
    ::_exit(1);
}

/// A backup's thread blocks the termination signals, the process may ignore SIGPIPE and SIGCHLD, and exec
/// keeps both. With that, a script wouldn't end when its pipe is closed, and couldn't wait for its own
/// children.
void restoreSignals() noexcept {
    struct ::sigaction standard{};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &standard, nullptr); // fails for the few signals that can't be changed
    }
    sigset_t none;
    sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void runShell(int readFd, int writeFd, const char* command, const char* directory) noexcept {
    restoreSignals();
    // dup2 makes copies that aren't close-on-exec.
    if (::dup2(writeFd, STDERR_FILENO) < 0) {
        fail("dup2 stderr");
    }
    if (::dup2(writeFd, STDOUT_FILENO) < 0) {
        fail("dup2 stdout");
    }
    if (::close(readFd) != 0) { // NOLINT(resources): the child has no owners
        fail("close read");
    }
    if (::close(writeFd) != 0) { // NOLINT(resources): the child has no owners
        fail("close write");
    }
    if (*directory != '\0' && ::chdir(directory) != 0) {
        fail("chdir");
    }
    ::execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    fail("execl");
}

/// Waits like select(2) until the descriptor is readable. Uses ppoll, because select only takes descriptors
/// up to 1,023, and an agent with many connections has larger ones.
int selectReadable(int descriptor, std::int64_t microseconds) noexcept {
    ::pollfd asked{descriptor, POLLIN, 0};
    ::timespec timeout{};
    timeout.tv_sec = microseconds / std::micro::den;
    timeout.tv_nsec = microseconds % std::micro::den * nanosecondsPerMicrosecond;
    const int count = ::ppoll(&asked, 1, &timeout, nullptr);
    if (count == 1 && (asked.revents & POLLNVAL) != 0) {
        errno = EBADF;
        return -1;
    }
    return count;
}

std::int64_t microsecondsSince(steady_clock::time_point begin) {
    return std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - begin).count();
}

int exitCode(int status) {
    if (WIFEXITED(status)) {
        return WEXITSTATUS(status);
    }
    return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
}

} // namespace

UnixCommandStream::UnixCommandStream(const std::string& command, const std::string& directory,
                                     bool killOnDestroy)
    : killOnDestroy(killOnDestroy) {
    std::tie(readFd, writeFd) = makePipe();
    {
        const SignalsBlocked blocked;
        pid = ::fork();
        if (pid == 0) {
            runShell(readFd.get(), writeFd.get(), command.c_str(), directory.c_str());
        }
    }
    if (pid < 0) {
        throw PosixError("fork failed!", errno);
    }
    writeFd.reset();
}

// Only the allocation of the guard can throw.
UnixCommandStream::~UnixCommandStream() { // NOLINT(bugprone-exception-escape)
    const ChldHandle guard = restartChld(false);
    if (!isChild()) {
        return;
    }
    if (killOnDestroy) {
        ::kill(pid, SIGKILL);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
}

bool UnixCommandStream::waitForOutput(std::int64_t& remaining) {
    return guarded([&] {
        const auto begin = steady_clock::now();
        const int count = selectReadable(readFd.get(), remaining);
        const int error = errno;
        if (remaining != 0) {
            remaining -= microsecondsSince(begin) + 1;
            if (remaining < 0) {
                remaining = 0;
                return false;
            }
        }
        if (count != 0 && count != 1) {
            throw PosixError("select failed!", error);
        }
        timeLeft = TimeLeft{steady_clock::now(), remaining};
        return count == 1;
    });
}

bool UnixCommandStream::readChar(char* byte) {
    return guarded([&] {
        *byte = 0;
        const ssize_t count = ::read(readFd.get(), byte, 1);
        if (count != 0 && count != 1) {
            throw PosixError("read failed!", errno);
        }
        eof = eof || count == 0;
        return !isEof();
    });
}

/// Whether to read another step after a full one. Without an earlier `waitForOutput`, the next read may block
/// without a time-out. If the poll fails, reading ends, and the next call reports the error.
bool UnixCommandStream::canReadMore() const noexcept {
    if (!timeLeft) {
        return true;
    }
    const std::int64_t left = timeLeft->microseconds - microsecondsSince(timeLeft->from);
    return selectReadable(readFd.get(), std::max<std::int64_t>(left, 0)) == 1;
}

bool UnixCommandStream::readAvailable(std::string& out) {
    return guarded([&] {
        out.clear();
        std::array<char, readStep> step{};
        for (;;) {
            const ssize_t count = ::read(readFd.get(), step.data(), step.size());
            if (count < 0) {
                throw PosixError("read failed!", errno);
            }
            if (count == 0) {
                eof = true;
                return !out.empty();
            }
            out.append(step.data(), static_cast<std::size_t>(count));
            if (static_cast<std::size_t>(count) < step.size() || out.size() >= maxReadBytes ||
                !canReadMore()) {
                return true;
            }
        }
    });
}

int UnixCommandStream::wait() {
    if (isReaped()) {
        return 0;
    }
    return guarded([&] {
        int status = 0;
        if (::waitpid(pid, &status, 0) != pid) {
            throw PosixError("waitpid failed!", errno);
        }
        pid = 0;
        return exitCode(status);
    });
}

/// Whether `pid` is still this stream's child. While SIGCHLD has its default action, that stays so until the
/// child is waited for. Otherwise the kernel may have given the number to another process, and 0 would mean
/// the agent's own process group: neither may get a signal.
bool UnixCommandStream::isChild() const noexcept {
    ::siginfo_t found{};
    return pid > 0 && ::waitid(P_PID, static_cast<id_t>(pid), &found, WEXITED | WNOHANG | WNOWAIT) == 0;
}

void UnixCommandStream::kill() {
    guarded([&] {
        if (!isChild()) {
            throw PosixError("kill failed!", ESRCH);
        }
        // Kills only the shell, or the command that replaced it; see the header.
        if (::kill(pid, SIGKILL) != 0) {
            throw PosixError("kill failed!", errno);
        }
        return true;
    });
}

bool UnixCommandStream::hasExited() const {
    if (isReaped()) {
        return true;
    }
    return guarded([&] {
        ::siginfo_t found{};
        if (::waitid(P_PID, static_cast<id_t>(pid), &found, WEXITED | WNOHANG | WNOWAIT) != 0) {
            throw PosixError("waitid failed!", errno);
        }
        return found.si_pid != 0;
    });
}

} // namespace agent::core::script
