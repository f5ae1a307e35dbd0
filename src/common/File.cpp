#include "common/File.h"

#include "common/Path.h"
#include "common/PosixError.h"
#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace agent::file {

namespace {

[[noreturn]] void fail(const std::string& message) {
    throw PosixError(message, errno);
}

bool isDirectory(const std::string& path) {
    struct ::stat found{};
    return ::stat(path.c_str(), &found) == 0 && S_ISDIR(found.st_mode);
}

/// Removes the file at `path` when it goes out of scope, unless finished() was called.
class UnfinishedFile {
public:
    explicit UnfinishedFile(std::string path) : path(std::move(path)) {}
    UnfinishedFile(const UnfinishedFile&) = delete;
    UnfinishedFile& operator=(const UnfinishedFile&) = delete;
    ~UnfinishedFile() {
        if (!path.empty()) {
            ::unlink(path.c_str());
        }
    }
    void finished() noexcept { path.clear(); }

private:
    std::string path;
};

bool copyBytes(int from, int to) {
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = ::read(from, buffer.data(), buffer.size());
        if (count == 0) {
            return true;
        }
        if (count < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        if (!os::writeAll(to, {buffer.data(), static_cast<std::size_t>(count)})) {
            return false;
        }
    }
}

} // namespace

bool exists(const std::string& path) {
    struct ::stat found{};
    return ::lstat(path.c_str(), &found) == 0;
}

void remove(const std::string& path) {
    if (std::remove(path.c_str()) != 0) {
        fail("std::remove(\"" + path + "\") failed");
    }
}

void copy(const std::string& from, const std::string& to) {
    const std::string message = "file::copy(\"" + from + "\" -> \"" + to + "\") failed";
    const os::FileDescriptor source(::open(from.c_str(), O_RDONLY | O_CLOEXEC));
    struct ::stat sourceStatus{};
    if (!source || ::fstat(source.get(), &sourceStatus) != 0) {
        fail(message);
    }
    const os::FileDescriptor destination(
        ::open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, sourceStatus.st_mode & 07777));
    if (!destination) {
        const int reason = errno;
        if (isDirectory(to)) {
            throw PosixError(message + " - expected dest file name, not directory", EISDIR);
        }
        throw PosixError(reason == EEXIST ? message + " - dest file exists" : message, reason);
    }
    UnfinishedFile unfinished(to);
    if (!copyBytes(source.get(), destination.get())) {
        fail(message);
    }
    unfinished.finished();
}

void rename(const std::string& from, const std::string& to) {
    if (std::rename(from.c_str(), to.c_str()) != 0) {
        fail("std::rename(\"" + from + "\", \"" + to + "\") failed");
    }
}

void symlink(const std::string& source, const std::string& link) {
    const std::string message = "symlink(\"" + source + "\" -> \"" + link + "\") failed";
    if (isDirectory(source)) {
        throw PosixError(message + " - source is a directory", EISDIR);
    }
    if (::symlink(source.c_str(), link.c_str()) != 0) {
        fail(message);
    }
}

void link(const std::string& source, const std::string& link) {
    if (::link(source.c_str(), link.c_str()) != 0) {
        fail("link(\"" + source + "\" -> \"" + link + "\") failed");
    }
}

struct ::stat status(const std::string& path) {
    struct ::stat found{};
    if (::stat(path.c_str(), &found) != 0) {
        fail("stat(\"" + path + "\") failed");
    }
    return found;
}

struct ::stat linkStatus(const std::string& path) {
    struct ::stat found{};
    if (::lstat(path.c_str(), &found) != 0) {
        fail("lstat(\"" + path + "\") failed");
    }
    return found;
}

struct ::stat64 status64(const std::string& path) {
    struct ::stat64 found{};
    if (::stat64(path.c_str(), &found) != 0) {
        fail("stat64(\"" + path + "\") failed");
    }
    return found;
}

void sync(const std::string& path) {
    const os::FileDescriptor descriptor(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    if (descriptor) {
        static_cast<void>(::fsync(descriptor.get()));
    }
}

void replace(const std::string& path, std::string_view content, mode_t mode) {
    const std::string temporary = path + ".new";
    const std::string message = "Unable to write \"" + temporary + "\"";
    // Removes a file that an earlier crash has left, because its permissions may differ from `mode`.
    ::unlink(temporary.c_str());
    const os::FileDescriptor descriptor(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    if (!descriptor) {
        fail(message);
    }
    UnfinishedFile unfinished(temporary);
    if (!os::writeAll(descriptor.get(), content) || ::fsync(descriptor.get()) != 0) {
        fail(message);
    }
    rename(temporary, path);
    unfinished.finished();
    sync(Path(path).parent());
}

} // namespace agent::file
