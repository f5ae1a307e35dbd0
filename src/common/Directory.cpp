#include "common/Directory.h"

#include "common/PosixError.h"
#include "os/FileDescriptor.h"

#include <cerrno>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::dir {

namespace {

struct CloseDirectory {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using DirectoryStream = std::unique_ptr<DIR, CloseDirectory>;

bool isDirectory(const std::string& path) {
    struct ::stat found{};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

/// Returns false with `errno` set if there is no directory at `path` afterwards.
bool makeOne(const std::string& path) {
    if (::mkdir(path.c_str(), 0755) == 0) {
        return true;
    }
    const int error = errno;
    if (error == EEXIST && !isDirectory(path)) {
        errno = ENOTDIR;
        return false;
    }
    errno = error;
    return error == EEXIST;
}

/// Reads all names of an open directory. Returns false with `errno` set on failure.
bool readNames(DIR* directory, std::vector<std::string>& names) {
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(directory);
        if (entry == nullptr) {
            return errno == 0;
        }
        const std::string_view name(entry->d_name);
        if (name != "." && name != "..") {
            names.emplace_back(name);
        }
    }
}

/// Removes everything in the directory that `descriptor` refers to. Opening subdirectories by descriptor,
/// never by path, keeps the walk inside the tree. Returns false with `errno` set on failure.
// NOLINTNEXTLINE(misc-no-recursion): each level holds a descriptor; their limit bounds the depth
bool removeContents(os::FileDescriptor descriptor) {
    const int number = descriptor.get();
    const DirectoryStream directory(::fdopendir(number));
    if (!directory) {
        return false;
    }
    descriptor.release();
    std::vector<std::string> names;
    if (!readNames(directory.get(), names)) {
        return false;
    }
    for (const std::string& name : names) {
        if (::unlinkat(number, name.c_str(), 0) == 0) {
            continue;
        }
        if (errno != EISDIR) {
            return false;
        }
        os::FileDescriptor below(
            ::openat(number, name.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
        if (!below || !removeContents(std::move(below)) ||
            ::unlinkat(number, name.c_str(), AT_REMOVEDIR) != 0) {
            return false;
        }
    }
    return true;
}

} // namespace

void make(const std::string& path) {
    if (path.empty()) {
        throw std::invalid_argument("dir::make directory is empty");
    }
    if (isDirectory(path)) {
        return;
    }
    const std::string prefix = "dir::make(\"" + path + "\"), ";
    for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
         slash = path.find('/', slash + 1)) {
        const std::string part = path.substr(0, slash);
        if (!makeOne(part)) {
            throw PosixError(prefix + "makedir(\"" + part + "\") failed", errno);
        }
    }
    if (!makeOne(path)) {
        throw PosixError(prefix + "mkdir(\"" + path + "\") failed", errno);
    }
}

std::vector<std::string> list(const std::string& path) {
    const DirectoryStream directory(::opendir(path.c_str()));
    if (!directory) {
        throw PosixError("opendir(\"" + path + "\") failed", errno);
    }
    std::vector<std::string> names;
    if (!readNames(directory.get(), names)) {
        throw PosixError("readdir with directory \"" + path + "\" failed", errno);
    }
    return names;
}

void remove(const std::string& path) {
    os::FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!descriptor && (errno == ENOTDIR || errno == ELOOP)) {
        throw PosixError("Failed to remove \"" + path + "\" - not a directory", ENOTDIR);
    }
    if (!descriptor || !removeContents(std::move(descriptor)) || ::rmdir(path.c_str()) != 0) {
        throw PosixError("dir::remove (\"" + path + "\") failed", errno);
    }
}

} // namespace agent::dir
