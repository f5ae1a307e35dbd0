#include "core/backup/VolumeReader.h"

#include "common/PosixError.h"
#include "os/FileDescriptor.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace agent::core::backup {

class VolumeReader::Impl {
public:
    Impl(info::Logger& logger, std::string path) : logger(logger), path(std::move(path)) {
        if (!open()) {
            throw PosixError("Unable to open block device to calculate size", errno);
        }
        size = measure();
        fd.reset();
    }

    bool open();
    std::int64_t read(void* buffer, std::size_t length);
    std::int64_t seek(std::int64_t offset, int whence);
    [[nodiscard]] std::int32_t descriptor() const { return fd.get(); }
    [[nodiscard]] std::uint64_t bytes() const { return size; }

private:
    std::uint64_t measure();
    std::int64_t measuringSeek(std::int64_t offset, int whence, const char* purpose);

    info::Logger& logger;
    std::string path;
    os::FileDescriptor fd;
    std::uint64_t size = 0;
};

/// Logging must not change `errno`, which the callers report.
bool VolumeReader::Impl::open() {
    fd = os::FileDescriptor(::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC));
    if (!fd && errno == EINVAL) { // the file system doesn't support direct I/O
        fd = os::FileDescriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    }
    if (!fd) {
        const int error = errno;
        logger.log(info::level::error, "Failed to open block device %s, err: %d", path.c_str(), error);
        errno = error;
    }
    return static_cast<bool>(fd);
}

std::int64_t VolumeReader::Impl::read(void* buffer, std::size_t length) {
    const std::int64_t count = ::read(fd.get(), buffer, length);
    if (count == -1) {
        logger.log(info::level::error, "Failed to read length %ld on block device %s, err: %d",
                   static_cast<std::int64_t>(length), path.c_str(), errno);
    } else if (static_cast<std::size_t>(count) < length) {
        logger.log(info::level::debug, "Read less than we asked for %ld of %ld  on block device %s", count,
                   static_cast<std::int64_t>(length), path.c_str());
    }
    return count;
}

std::int64_t VolumeReader::Impl::seek(std::int64_t offset, int whence) {
    const std::int64_t position = ::lseek(fd.get(), offset, whence);
    if (position == -1) {
        const int error = errno;
        logger.log(info::level::error, "Failed to seek to block %ld on block device %s, err: %d", offset,
                   path.c_str(), error);
        errno = error;
    }
    return position;
}

std::uint64_t VolumeReader::Impl::measure() {
    const std::int64_t position = measuringSeek(0, SEEK_CUR, "get current position in");
    const std::int64_t end = measuringSeek(0, SEEK_END, "seek to end of");
    measuringSeek(position, SEEK_SET, "seek to previous in");
    return static_cast<std::uint64_t>(end);
}

std::int64_t VolumeReader::Impl::measuringSeek(std::int64_t offset, int whence, const char* purpose) {
    const std::int64_t position = seek(offset, whence);
    if (position == -1) {
        const int error = errno;
        logger.log(info::level::error, "Failed to %s device %s: errno = %d", purpose, path.c_str(), error);
        throw PosixError("Unable to " + std::string(purpose) + " block device to calculate size", error);
    }
    return position;
}

VolumeReader::VolumeReader(info::Logger& logger, const std::string& path)
    : impl(std::make_unique<Impl>(logger, path)) {}

VolumeReader::~VolumeReader() = default;

std::int64_t VolumeReader::read(void* buffer, std::size_t length) {
    return impl->read(buffer, length);
}

std::int64_t VolumeReader::seek(std::int64_t offset, int whence) {
    return impl->seek(offset, whence);
}

std::int32_t VolumeReader::getFd() const {
    return impl->descriptor();
}

bool VolumeReader::open() {
    return impl->open();
}

std::uint64_t VolumeReader::getSize() const {
    return impl->bytes();
}

} // namespace agent::core::backup
