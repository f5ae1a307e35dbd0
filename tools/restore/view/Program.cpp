#include "Program.h"

#include "common/PosixError.h"
#include "tools/common/Text.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace restore::view {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds pollPause(10);
constexpr milliseconds watchPause(200);
constexpr milliseconds endTimeout(10'000);
constexpr std::size_t mostOutput = 256UL * 1024;
constexpr int statusOfSignal = 128;
constexpr int cannotStart = 126;
constexpr const char* systemPaths = "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin";

/// Looks in the system's own directories: a user's PATH may lack those of the administrator.
std::string findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) {
        return name;
    }
    for (std::string rest = systemPaths; !rest.empty();) {
        const std::size_t end = std::min(rest.find(':'), rest.size());
        std::string path = rest.substr(0, end) + "/" + name;
        if (::access(path.c_str(), X_OK) == 0) {
            return path;
        }
        rest.erase(0, end + 1);
    }
    throw ProgramMissing("there is no program " + name + " on this machine");
}

/// Everything that execve needs, prepared before the fork: after it, nothing may be allocated.
struct ExecArguments {
    explicit ExecArguments(const Start& start)
        : path(findProgram(start.command.front())),
          command(start.command),
          environment(environmentOf(start)) {
        for (std::string& argument : command) {
            arguments.push_back(argument.data());
        }
        arguments.push_back(nullptr);
        for (std::string& variable : environment) {
            variables.push_back(variable.data());
        }
        variables.push_back(nullptr);
        if (start.mountNamespaceOf) {
            const std::string name = "/proc/" + std::to_string(*start.mountNamespaceOf) + "/ns/mnt";
            mountNamespace = os::FileDescriptor(::open(name.c_str(), O_RDONLY | O_CLOEXEC));
        }
    }

    static std::vector<std::string> environmentOf(const Start& start) {
        std::vector<std::string> all{"LC_ALL=C", std::string("PATH=") + systemPaths};
        for (const char* name : {"TMPDIR", "HOME", "TERM"}) {
            if (const char* value = std::getenv(name); value != nullptr) { // NOLINT(concurrency-mt-unsafe)
                all.push_back(std::string(name) + "=" + value);
            }
        }
        for (const auto& [name, value] : start.environment) {
            all.push_back(name + "=" + value);
        }
        return all;
    }

    std::string path;
    std::vector<std::string> command;
    std::vector<std::string> environment;
    std::vector<char*> arguments;
    std::vector<char*> variables;
    os::FileDescriptor mountNamespace;
};

/// Runs in the child. Returns false if a requested setting fails.
bool applySettings(const Start& start, const ExecArguments& exec, pid_t parent) {
    if (start.endsWithParent && (::prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || ::getppid() != parent)) {
        return false;
    }
    if (start.isDetached && ::setsid() < 0) {
        return false;
    }
    if (start.mountNamespaceOf && ::setns(exec.mountNamespace.get(), CLONE_NEWNS) != 0) {
        return false;
    }
    // An unmount on the machine also takes effect in this namespace, but nothing goes the other way.
    return !start.hasOwnMountNamespace ||
           (::unshare(CLONE_NEWNS) == 0 && ::mount(nullptr, "/", nullptr, MS_REC | MS_SLAVE, nullptr) == 0);
}

bool redirectStreams(const Start& start) {
    const int nullDevice = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    const int output = start.output >= 0 ? start.output : nullDevice;
    return nullDevice >= 0 && ::dup2(nullDevice, STDIN_FILENO) >= 0 && ::dup2(output, STDOUT_FILENO) >= 0 &&
           ::dup2(output, STDERR_FILENO) >= 0 &&
           (start.inheritedDescriptor < 0 || ::fcntl(start.inheritedDescriptor, F_SETFD, 0) == 0);
}

[[noreturn]] void execInChild(const Start& start, const ExecArguments& exec, pid_t parent) {
    ::sigset_t none{};
    ::sigemptyset(&none);
    ::pthread_sigmask(SIG_SETMASK, &none, nullptr);
    if (applySettings(start, exec, parent) && redirectStreams(start)) {
        ::execve(exec.path.c_str(), exec.arguments.data(), exec.variables.data());
    }
    ::_exit(cannotStart);
}

int shellStatus(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : statusOfSignal + WTERMSIG(status);
}

/// Keeps what fits of the pipe's data. Returns false at the end of the pipe.
bool drain(int pipe, std::string& output) {
    std::array<char, 16384> part{};
    const ::ssize_t count = ::read(pipe, part.data(), part.size());
    if (count > 0) {
        const std::size_t room = mostOutput - std::min(mostOutput, output.size());
        output.append(part.data(), std::min(room, static_cast<std::size_t>(count)));
    }
    return count > 0 || (count < 0 && errno == EINTR);
}

/// The timeout of the next poll: until the deadline, but at most `watchPause`.
int nextPause(Clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<milliseconds>(deadline - Clock::now());
    return static_cast<int>(std::clamp(left, milliseconds(0), watchPause).count());
}

} // namespace

Program::Program(const Start& start) : id(Program::start(start)) {}

pid_t Program::start(const Start& start) {
    const ExecArguments exec(start);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child < 0) {
        throw agent::PosixError(start.command.front() + " can't be started", errno);
    }
    if (child == 0) {
        execInChild(start, exec, parent);
    }
    return child;
}

Program::Program(Program&& other) noexcept : id(std::exchange(other.id, -1)), ended(other.ended) {}

Program::~Program() {
    end();
}

std::optional<int> Program::status() {
    int state = 0;
    if (!ended && id > 0 && ::waitpid(id, &state, WNOHANG) == id) {
        ended = shellStatus(state);
    }
    return ended;
}

std::optional<int> Program::wait(milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!status() && Clock::now() < deadline) {
        std::this_thread::sleep_for(pollPause);
    }
    return ended;
}

void Program::end() {
    if (id <= 0 || status()) {
        return;
    }
    ::kill(id, SIGTERM);
    if (!wait(endTimeout)) {
        kill();
    }
}

void Program::kill() {
    if (id > 0 && !status()) {
        ::kill(id, SIGKILL);
        wait(endTimeout); // a process that waits in the kernel for a dead disk ends only when that returns
    }
}

/// Reads the pipe to its end even if no more output is kept, so that the program never blocks on a full pipe.
Outcome runProgram(Start start, std::optional<milliseconds> limit, const std::function<void(pid_t)>& watch) {
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw agent::PosixError("there is no pipe to be had", errno);
    }
    const os::FileDescriptor reading(ends[0]);
    os::FileDescriptor writing(ends[1]);
    start.output = writing.get();
    start.endsWithParent = true;
    Program program(start);
    writing.reset();
    const Clock::time_point deadline = limit ? Clock::now() + *limit : Clock::time_point::max();
    Outcome outcome;
    ::pollfd ready{reading.get(), POLLIN, 0};
    while (true) {
        if (watch) {
            watch(program.pid());
        }
        const int count = ::poll(&ready, 1, nextPause(deadline));
        if (count == 0 && Clock::now() >= deadline) {
            program.kill();
            throw std::runtime_error(start.command.front() + " took longer than " +
                                     tools::durationText(static_cast<double>(limit->count()) / 1000));
        }
        if (count > 0 && !drain(reading.get(), outcome.output)) {
            break;
        }
    }
    const std::optional<int> status = program.wait(endTimeout);
    outcome.status = status.value_or(statusOfSignal + SIGKILL);
    return outcome;
}

std::string lastOutputLine(const std::string& output) {
    std::string last;
    for (std::size_t begin = 0; begin < output.size();) {
        const std::size_t end = std::min(output.find('\n', begin), output.size());
        const std::string line = output.substr(begin, end - begin);
        if (line.find_first_not_of(" \t\r") != std::string::npos) {
            last = line;
        }
        begin = end + 1;
    }
    return tools::plain(last);
}

} // namespace restore::view
