#include "support/NbdkitProcess.h"

#include "support/Waiting.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <spawn.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace zephane::test {

namespace {

pid_t start(std::vector<std::string> arguments) {
    std::vector<char*> pointers;
    for (auto& argument : arguments) {
        pointers.push_back(argument.data());
    }
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t quiet;
    posix_spawn_file_actions_init(&quiet);
    posix_spawn_file_actions_addopen(&quiet, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t process = -1;
    const int error = posix_spawnp(&process, "nbdkit", &quiet, nullptr, pointers.data(), environ);
    posix_spawn_file_actions_destroy(&quiet);
    if (error != 0) {
        throw std::runtime_error("nbdkit can't be started");
    }
    return process;
}

} // namespace

NbdkitProcess::NbdkitProcess(const std::vector<std::string>& arguments) {
    const std::string ready = directory / "ready"; // the socket exists before nbdkit listens on it
    std::vector<std::string> all{"nbdkit", "-f", "--exit-with-parent", "-U" + socket()};
    all.insert(all.end(), {"-P" + ready, "--filter=log"});
    all.insert(all.end(), arguments.begin(), arguments.end());
    all.push_back("logfile=" + std::string(directory / "log"));
    process = start(std::move(all));
    if (!agent::test::eventually([&] { return std::filesystem::exists(ready); })) {
        kill();
        throw std::runtime_error("nbdkit doesn't come up");
    }
}

NbdkitProcess::~NbdkitProcess() {
    kill();
}

void NbdkitProcess::kill() {
    if (process > 0) {
        ::kill(process, SIGKILL);
        ::waitpid(process, nullptr, 0);
        process = -1;
    }
}

std::vector<std::string> NbdkitProcess::requests() const {
    static const std::regex request(
        R"(.*connection=\d+ (Read|Write|Zero|Flush) id=\d+(?: offset=(\w+) count=(\w+))?.* \.\.\.)");
    std::istringstream log(agent::test::readFile(directory / "log"));
    std::vector<std::string> found;
    std::smatch match;
    for (std::string line; std::getline(log, line);) {
        if (std::regex_match(line, match, request)) {
            found.push_back(match[2].matched ? match.format("$1 $2 $3") : match.str(1));
        }
    }
    return found;
}

} // namespace zephane::test
