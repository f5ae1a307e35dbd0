#include "zephane/zephaned/ConfigFile.h"

#include "os/Transfer.h"
#include "zephane/wire/Limits.h"

#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <span>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace zephane {

namespace {

constexpr std::size_t longestFile = 16 * wire::mebibyte;
constexpr mode_t ownerOnly = 0600;
constexpr mode_t others = 077;
constexpr std::chrono::seconds lockTime{10};
constexpr std::chrono::milliseconds lockPause{20};

std::string errnoText() {
    return std::generic_category().message(errno);
}

} // namespace

bool ConfigFile::exists() const {
    return ::access(path.c_str(), F_OK) == 0;
}

Config ConfigFile::load() const {
    const os::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status{};
    if (!file || ::fstat(file.get(), &status) != 0) {
        fail("it can't be read: " + errnoText());
    }
    if (!S_ISREG(status.st_mode) || static_cast<std::uintmax_t>(status.st_size) > longestFile) {
        fail("it has to be a file of 16 MiB at most");
    }
    if ((status.st_mode & others) != 0) {
        fail("others may read or write it, and it holds secrets: chmod 600 " + path);
    }
    std::string text(static_cast<std::size_t>(status.st_size), '\0');
    const os::Transfer done = os::readUpTo(file.get(), std::as_writable_bytes(std::span(text)));
    if (done.error != 0) {
        fail("it can't be read: " + std::generic_category().message(done.error));
    }
    text.resize(done.bytes);
    return parseConfig(text, path);
}

void ConfigFile::save(const Config& config) const {
    const std::string text = toText(config);
    struct stat owner{};
    if (::stat(ownerPath().c_str(), &owner) != 0) {
        fail("it can't be written: " + errnoText());
    }
    const std::string unfinished = path + ".new";
    ::unlink(unfinished.c_str());
    os::FileDescriptor file(
        ::open(unfinished.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
    const os::FileDescriptor folder(::open(directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const bool isOwned =
        folder && file &&
        (owner.st_uid == ::geteuid() || ::fchown(file.get(), owner.st_uid, owner.st_gid) == 0);
    if (!isOwned || !os::writeAll(file.get(), text) || ::fsync(file.get()) != 0 ||
        ::rename(unfinished.c_str(), path.c_str()) != 0 || ::fsync(folder.get()) != 0) {
        const std::string why = errnoText();
        ::unlink(unfinished.c_str());
        fail("it can't be written: " + why);
    }
}

os::FileDescriptor ConfigFile::lock() const {
    os::FileDescriptor folder(::open(directory().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder) {
        fail("its directory can't be opened: " + errnoText());
    }
    const auto end = std::chrono::steady_clock::now() + lockTime;
    while (::flock(folder.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK || std::chrono::steady_clock::now() >= end) {
            fail("somebody else is editing it: " + errnoText());
        }
        std::this_thread::sleep_for(lockPause);
    }
    return folder;
}

std::string ConfigFile::directory() const {
    const std::string parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? "." : parent;
}

void ConfigFile::fail(const std::string& what) const {
    throw ConfigError(path + ": " + what);
}

} // namespace zephane
