#include "Process.h"

#include "Failure.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <string_view>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

namespace tolvubd {

namespace {

namespace fs = std::filesystem;

constexpr const char* processFolder = "/proc";
/// Indices into the words that parseStat returns.
constexpr std::size_t parentWord = 1;
constexpr std::size_t startedWord = 19;

bool isNumber(const std::string& name) {
    return !name.empty() && std::ranges::all_of(name, [](char c) { return c >= '0' && c <= '9'; });
}

std::vector<pid_t> numbersIn(const std::string& folder) {
    std::vector<pid_t> numbers;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder)) {
        if (const std::string name = entry.path().filename(); isNumber(name)) {
            numbers.push_back(static_cast<pid_t>(std::stol(name)));
        }
    }
    return numbers;
}

std::uint64_t toNumber(const std::string& text) {
    return std::stoull(text, nullptr, 0);
}

/// Whether a path refers to the device. Uses only what the kernel has cached, because a request to a file
/// system that is held would block. False when the path is gone by now.
bool isDevice(const std::string& path, mode_t type, dev_t device) {
    struct statx status{};
    return ::statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC | AT_NO_AUTOMOUNT, STATX_TYPE, &status) == 0 &&
           (status.stx_mode & static_cast<mode_t>(S_IFMT)) == type &&
           makedev(status.stx_rdev_major, status.stx_rdev_minor) == device;
}

/// The state letter, which follows the process name. The name may contain any character, but is short.
char stateIn(int folder, const char* file) noexcept {
    const os::FileDescriptor stat(::openat(folder, file, O_RDONLY | O_CLOEXEC));
    std::array<char, 128> text{};
    const ssize_t got = ::read(stat.get(), text.data(), text.size());
    const std::string_view line(text.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    const std::size_t end = line.rfind(") ");
    return end == std::string_view::npos || end + 2 >= line.size() ? char{0} : line[end + 2];
}

} // namespace

Process::Process(pid_t number)
    : id(number),
      folder(openFile(std::string(processFolder) + "/" + std::to_string(number), O_RDONLY | O_DIRECTORY)) {}

std::string Process::path(const std::string& name) const {
    return std::string(processFolder) + "/self/fd/" + std::to_string(folder.get()) + "/" + name;
}

std::vector<std::string> Process::stat() const {
    return parseStat(readToEnd(path("stat")));
}

ProcessName Process::name() const {
    return {id, toNumber(stat().at(startedWord))};
}

pid_t Process::parent() const {
    return static_cast<pid_t>(toNumber(stat().at(parentWord)));
}

char Process::state() const noexcept {
    return stateIn(folder.get(), "stat");
}

bool Process::send(int signal) const noexcept {
    return ::syscall(SYS_pidfd_send_signal, folder.get(), signal, nullptr, 0U) == 0;
}

std::vector<std::uint64_t> Process::descriptorsOf(mode_t type, dev_t device) const {
    std::vector<std::uint64_t> found;
    for (const pid_t descriptor : numbersIn(path("fd"))) {
        if (isDevice(path("fd/" + std::to_string(descriptor)), type, device)) {
            found.push_back(static_cast<std::uint64_t>(descriptor));
        }
    }
    return found;
}

std::vector<pid_t> Process::threads() const {
    return numbersIn(path("task"));
}

char Process::stateOf(pid_t thread) const noexcept {
    std::array<char, 32> path{};
    std::snprintf(path.data(), path.size(), "task/%d/stat", thread);
    return stateIn(folder.get(), path.data());
}

SystemCall Process::callOf(pid_t thread) const {
    return parseSystemCall(readToEnd(path("task/" + std::to_string(thread) + "/syscall")));
}

std::vector<pid_t> processes() {
    return numbersIn(processFolder);
}

pid_t thisProcess() {
    return static_cast<pid_t>(std::stol(fs::read_symlink(std::string(processFolder) + "/self")));
}

std::vector<std::string> parseStat(const std::string& line) {
    const std::size_t end = line.rfind(')');
    std::istringstream text(end == std::string::npos ? std::string() : line.substr(end + 1));
    std::vector<std::string> words;
    for (std::string word; text >> word;) {
        words.push_back(word);
    }
    if (words.size() <= startedWord) {
        fail(ESRCH, "look at a process");
    }
    return words;
}

SystemCall parseSystemCall(const std::string& line) {
    std::istringstream text(line);
    std::string number;
    std::string argument;
    if (!(text >> number >> argument) || !isNumber(number)) { // "running", or -1 outside of any call
        return {};
    }
    return {std::stol(number), toNumber(argument)};
}

} // namespace tolvubd
