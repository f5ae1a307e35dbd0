#include "FileLocks.h"

#include "SmallFile.h"

#include <array>
#include <cstddef>
#include <cstdio>
#include <sstream>
#include <sys/stat.h>
#include <sys/sysmacros.h>

namespace bekctl {

namespace {

constexpr std::size_t mostBytes = std::size_t{16} << 20U;

std::string nameInLocks(const struct ::stat& file) {
    std::array<char, 64> text{};
    std::snprintf(text.data(), text.size(), "%02x:%02x:%llu", ::major(file.st_dev), ::minor(file.st_dev),
                  static_cast<unsigned long long>(file.st_ino));
    return text.data();
}

} // namespace

/// The format is "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a waiting process has "->" after the
/// number.
std::optional<pid_t> findLockHolder(const std::string& locks, const std::string& file) {
    std::istringstream lines(locks);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream fields(line);
        std::string number;
        std::string kind;
        std::string strictness;
        std::string mode;
        pid_t holder = 0;
        std::string name;
        if (fields >> number >> kind >> strictness >> mode >> holder >> name && kind == "FLOCK" &&
            mode == "WRITE" && name == file) {
            return holder;
        }
    }
    return std::nullopt;
}

std::optional<pid_t> lockHolder(const std::string& path) {
    struct ::stat file{};
    const std::optional<std::string> locks = readFile("/proc/locks", mostBytes);
    if (!locks || ::stat(path.c_str(), &file) != 0) {
        return std::nullopt;
    }
    return findLockHolder(*locks, nameInLocks(file));
}

} // namespace bekctl
