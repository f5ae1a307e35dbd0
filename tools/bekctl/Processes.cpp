#include "Processes.h"

#include "SmallFile.h"
#include "common/Directory.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <sstream>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace bekctl {

namespace {

constexpr std::size_t mostOfProcess = 65536;
constexpr std::size_t mostOfTable = std::size_t{16} << 20U;
constexpr const char* listening = "0A";

std::string pathOf(pid_t pid, const std::string& name) {
    return "/proc/" + std::to_string(pid) + "/" + name;
}

std::string linkOf(const std::string& path) {
    std::array<char, 4096> text{};
    const ssize_t length = ::readlink(path.c_str(), text.data(), text.size());
    return length < 0 ? "" : std::string(text.data(), static_cast<std::size_t>(length));
}

std::vector<std::string> namesIn(const std::string& directory) {
    try {
        return agent::dir::list(directory);
    } catch (const std::exception&) {
        return {}; // the process has ended meanwhile
    }
}

std::optional<pid_t> asPid(std::string_view text) {
    pid_t pid = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), pid);
    return error == std::errc() && end == text.data() + text.size() ? std::optional(pid) : std::nullopt;
}

std::time_t secondsOfStart() {
    std::istringstream lines(readFile("/proc/stat", mostOfTable).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::time_t seconds = 0;
        if (line.starts_with("btime ") && std::istringstream(line.substr(6)) >> seconds) {
            return seconds;
        }
    }
    return 0;
}

/// Field 22 is the start time. Fields are counted from the last parenthesis, as the program's name before it
/// may hold anything.
std::time_t beginOf(const std::string& status) {
    constexpr int fieldsBetween = 19;
    std::istringstream fields(status.substr(std::min(status.rfind(')') + 1, status.size())));
    std::string passed;
    for (int index = 0; index < fieldsBetween; ++index) {
        fields >> passed;
    }
    std::uint64_t ticks = 0;
    const long perSecond = ::sysconf(_SC_CLK_TCK);
    return fields >> ticks && perSecond > 0
               ? secondsOfStart() + static_cast<std::time_t>(ticks / static_cast<std::uint64_t>(perSecond))
               : 0;
}

bool holdsSocket(pid_t pid, const std::string& socket) {
    const std::string directory = pathOf(pid, "fd");
    const std::vector<std::string> names = namesIn(directory);
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string& name) { return linkOf(directory + "/" + name) == socket; });
}

} // namespace

std::optional<Process> findProcess(pid_t pid) {
    const std::optional<std::string> name = readFile(pathOf(pid, "comm"), mostOfProcess);
    const std::optional<std::string> status = readFile(pathOf(pid, "stat"), mostOfProcess);
    if (!name || !status) {
        return std::nullopt;
    }
    return Process{pid, name->substr(0, name->find('\n')), beginOf(*status),
                   linkOf(pathOf(pid, "exe")).ends_with(" (deleted)")};
}

/// A line of the table is
/// "  0: 00000000:63DF 00000000:0000 0A 00000000:00000000 00:00000000 00000000     0        0 1185 ..."
std::string findListeningSocket(const std::string& table, unsigned short port) {
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::vector<std::string> found;
        for (std::string field; found.size() < 10 && fields >> field;) {
            found.push_back(field);
        }
        if (found.size() < 10 || found[3] != listening) {
            continue;
        }
        const std::string_view text = std::string_view(found[1]).substr(found[1].rfind(':') + 1);
        unsigned number = 0;
        const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, 16);
        if (error == std::errc() && end == text.data() + text.size() && number == port) {
            return found[9];
        }
    }
    return "";
}

std::optional<Process> findListener(unsigned short port) {
    std::string inode;
    for (const char* const table : {"/proc/net/tcp", "/proc/net/tcp6"}) {
        inode = inode.empty() ? findListeningSocket(readFile(table, mostOfTable).value_or(""), port) : inode;
    }
    if (inode.empty()) {
        return std::nullopt;
    }
    for (const std::string& name : namesIn("/proc")) {
        const std::optional<pid_t> pid = asPid(name);
        if (pid && holdsSocket(*pid, "socket:[" + inode + "]")) {
            return findProcess(*pid);
        }
    }
    return std::nullopt;
}

} // namespace bekctl
