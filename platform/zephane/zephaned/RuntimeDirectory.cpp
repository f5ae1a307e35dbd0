#include "zephane/zephaned/RuntimeDirectory.h"

#include "zephane/zephaned/Config.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace zephane {

namespace {

constexpr mode_t ownerOnly = 0700;
constexpr const char* socketSuffix = ".sock";

void require(bool isTrue, const std::string& path, const char* what) {
    if (!isTrue) {
        throw ConfigError(path + ": " + what + ": " + std::generic_category().message(errno));
    }
}

void removeSockets(const std::string& path) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(path, error)) {
        if (entry.path().extension() == socketSuffix) {
            std::filesystem::remove(entry.path(), error);
        }
    }
}

} // namespace

RuntimeDirectory::RuntimeDirectory(const std::string& path) : location(path) {
    require(::mkdir(path.c_str(), ownerOnly) == 0 || errno == EEXIST, path, "it can't be made");
    directory = os::FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    require(static_cast<bool>(directory), path, "it can't be opened");
    require(::flock(directory.get(), LOCK_EX | LOCK_NB) == 0, path, "another zephaned uses it");
    require(::fchmod(directory.get(), ownerOnly) == 0, path, "it can't be closed to others");
    removeSockets(path);
}

std::string RuntimeDirectory::newSocket() {
    return location + "/" + std::to_string(++last) + socketSuffix;
}

} // namespace zephane
