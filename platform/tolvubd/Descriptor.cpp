#include "Descriptor.h"

#include "Failure.h"

#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace tolvubd {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        reset();
        number = std::exchange(other.number, -1);
    }
    return *this;
}

void Descriptor::reset() noexcept {
    if (number >= 0) {
        const int before = errno;
        ::close(std::exchange(number, -1));
        errno = before;
    }
}

Descriptor openFile(const std::string& path, int flags, mode_t mode) {
    Descriptor file(::open(path.c_str(), flags | O_CLOEXEC, mode));
    if (!file) {
        failWithErrno("open " + path);
    }
    return file;
}

std::size_t readAt(const Descriptor& file, std::span<std::byte> into, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < into.size()) {
        const ssize_t got =
            ::pread(file.get(), into.data() + done, into.size() - done, static_cast<off_t>(offset + done));
        if (got == 0) {
            break;
        }
        if (got > 0) {
            done += static_cast<std::size_t>(got);
        } else if (errno != EINTR) {
            failWithErrno("read");
        }
    }
    return done;
}

void writeAt(const Descriptor& file, std::span<const std::byte> from, std::uint64_t offset) {
    std::size_t done = 0;
    while (done < from.size()) {
        const ssize_t put =
            ::pwrite(file.get(), from.data() + done, from.size() - done, static_cast<off_t>(offset + done));
        if (put >= 0) {
            done += static_cast<std::size_t>(put);
        } else if (errno != EINTR) {
            failWithErrno("write");
        }
    }
}

void syncFile(const Descriptor& file, const std::string& path) {
    checked(::fsync(file.get()), "sync " + path);
}

void syncDirectory(const std::string& path) {
    syncFile(openFile(path, O_RDONLY | O_DIRECTORY), path);
}

void removeFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        failWithErrno("remove " + path);
    }
}

} // namespace tolvubd
