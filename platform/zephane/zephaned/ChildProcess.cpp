#include "zephane/zephaned/ChildProcess.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <span>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace zephane {

namespace {

constexpr unsigned firstOther = STDERR_FILENO + 1;
constexpr int exitNotFound = 127; // as a shell does if there is no program

std::vector<char*> pointersTo(std::vector<std::string>& words) {
    std::vector<char*> pointers;
    pointers.reserve(words.size() + 1);
    for (std::string& word : words) {
        pointers.push_back(word.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

/// Turns the forked child into the new program. Another thread may have held a lock at the fork, so this only
/// makes system calls.
[[noreturn]] void become(const char* program, char* const* arguments, char* const* environment, int input,
                         int output, pid_t parent) {
    // The parent may have died before prctl.
    const bool isOurs = ::prctl(PR_SET_PDEATHSIG, SIGTERM) == 0 && ::getppid() == parent;
    if (isOurs && ::dup2(input, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0 &&
        ::dup2(output, STDERR_FILENO) >= 0) {
        // asio's sockets aren't close-on-exec.
        ::close_range(firstOther, ~0U, 0);
        ::signal(SIGPIPE, SIG_DFL);
        ::execve(program, arguments, environment);
    }
    ::_exit(exitNotFound);
}

[[noreturn]] void fail(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

} // namespace

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const os::FileDescriptor& output) {
    std::vector<std::string> words{program};
    words.insert(words.end(), arguments.begin(), arguments.end());
    std::vector<std::string> variables{"PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
                                       "LANG=C.UTF-8"};
    const std::vector<char*> wordPointers = pointersTo(words);
    const std::vector<char*> variablePointers = pointersTo(variables);
    const os::FileDescriptor input(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    if (!input) {
        fail("open /dev/null");
    }
    const pid_t parent = ::getpid();
    const pid_t number = ::fork();
    if (number == 0) {
        become(program.c_str(), wordPointers.data(), variablePointers.data(), input.get(), output.get(),
               parent);
    }
    if (number > 0) {
        process = os::FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, number, 0U)));
    }
    if (!process) {
        const int error = errno;
        if (number > 0) {
            ::kill(number, SIGKILL);
            ::waitpid(number, nullptr, 0);
        }
        errno = error;
        fail("start " + program);
    }
}

ChildProcess::~ChildProcess() {
    if (!hasEnded()) {
        send(SIGKILL);
    }
    ::waitid(P_PIDFD, static_cast<id_t>(process.get()), nullptr, WEXITED | WNOHANG);
}

bool ChildProcess::hasEnded() const noexcept {
    siginfo_t status{};
    const int result =
        ::waitid(P_PIDFD, static_cast<id_t>(process.get()), &status, WEXITED | WNOHANG | WNOWAIT);
    return result != 0 || status.si_pid != 0; // an error means that it has been reaped already
}

void ChildProcess::send(int signal) const noexcept {
    ::syscall(SYS_pidfd_send_signal, process.get(), signal, nullptr, 0U);
}

ProcessEnd ChildProcess::reap() const {
    siginfo_t status{};
    ::waitid(P_PIDFD, static_cast<id_t>(process.get()), &status, WEXITED | WNOHANG);
    return status.si_code == CLD_EXITED ? ProcessEnd{.status = status.si_status}
                                        : ProcessEnd{.signal = status.si_status};
}

std::string ProcessEnd::inWords() const {
    return signal == 0 ? "exit status " + std::to_string(status) : "signal " + std::to_string(signal);
}

} // namespace zephane
