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
/// What one call hands out at most, so that a child that prints without pause costs neither memory without
/// bound nor the caller's time-out.
constexpr std::size_t largestRead = std::size_t{1024} * 1024;
constexpr int nanosecondsPerMicrosecond = 1'000;

/// What SIGCHLD did before it was given its default action.
struct ChldAction {
    struct ::sigaction previous{};
    bool replaced = false;

    bool putBack() noexcept {
        replaced = false;
        return ::sigaction(SIGCHLD, &previous, nullptr) == 0;
    }
};
using ChldHandle = std::shared_ptr<ChldAction>;

/// Gives SIGCHLD its default action until the handle goes: a child that ends stays to be waited for, and no
/// handler of the agent's interrupts a call.
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

/// Runs `operation` under the guard. Putting the action back is done here and not left to the handle, from
/// whose deleter no failure could be thrown; after an exception it is, because the first failure counts.
template <typename Operation>
auto guarded(Operation operation) {
    const ChldHandle guard = restartChld(true);
    const auto result = operation();
    if (!guard->putBack()) {
        throw PosixError("sigaction failed!", errno);
    }
    return result;
}

/// Blocks every signal of this thread. Without it, a signal that meets the new child before it is the shell
/// would run a handler of the agent's there, on memory and descriptors that mirror the agent's.
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

/// Moves a descriptor out of the way of the standard ones, which the child puts the pipe in place of. A new
/// descriptor is one of them only if the agent was started with some of them closed.
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

// The child. Other threads of the agent may have held any lock at the moment of the fork, so that everything
// up to the exec has to be async-signal-safe: no allocation, no stdio, no exit handlers.

/// Prints what perror would and ends the child.
[[noreturn]] void fail(const char* step) noexcept {
    const char* reason = ::strerrordesc_np(errno);
    os::writeAll(STDERR_FILENO, step);
    os::writeAll(STDERR_FILENO, ": ");
    os::writeAll(STDERR_FILENO, reason != nullptr ? reason : "Unknown error");
    os::writeAll(STDERR_FILENO, "\n");
    ::_exit(1);
}

/// A backup's thread blocks the termination signals and the process may ignore SIGPIPE and SIGCHLD; exec
/// keeps both. A script would then not end with its pipe, and find its own children gone before it waits for
/// them.
void restoreSignals() noexcept {
    struct ::sigaction standard{};
    standard.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) {
        ::sigaction(signal, &standard, nullptr); // refused for the few that can't be changed
    }
    sigset_t none;
    sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
}

[[noreturn]] void runShell(int readFd, int writeFd, const char* command, const char* directory) noexcept {
    restoreSignals();
    // The copies that dup2 makes are not close-on-exec.
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

/// What select would answer about reading from this one descriptor. Its sets end at number 1,023, which an
/// agent with many connections is past, so this asks poll.
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

// Nothing but a want of memory for the guard could throw.
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

/// After a full step, whether to wait for the next one. A caller that has never set a time waits as long as
/// it takes. A select that fails ends the reading; the next call will say why.
bool UnixCommandStream::mayReadOn() const noexcept {
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
            if (static_cast<std::size_t>(count) < step.size() || out.size() >= largestRead || !mayReadOn()) {
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

/// Whether `pid` still names our child. Under the guard it then stays ours until it is waited for. A number
/// that the kernel has freed may belong to anyone by now, and 0 would mean the agent's own process group:
/// neither may be sent a signal.
bool UnixCommandStream::isChild() const noexcept {
    ::siginfo_t found{};
    return pid > 0 && ::waitid(P_PID, static_cast<id_t>(pid), &found, WEXITED | WNOHANG | WNOWAIT) == 0;
}

void UnixCommandStream::kill() {
    guarded([&] {
        if (!isChild()) {
            throw PosixError("kill failed!", ESRCH);
        }
        // Only the shell, or what it has replaced itself by; see the header.
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
