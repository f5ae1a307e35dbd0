#include "FileImage.h"

#include "DirectIo.h"
#include "Reading.h"
#include "common/PosixError.h"

#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <stdexcept>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace restore {

namespace {

constexpr std::uint64_t sectorBytes = 512;

/// Some file systems, such as those in memory, don't support direct I/O.
os::FileDescriptor openForReading(const std::string& path) {
    constexpr int usual = O_RDONLY | O_CLOEXEC | O_NONBLOCK; // doesn't block if the path is a pipe
    os::FileDescriptor file(::open(path.c_str(), usual | O_DIRECT));
    if (!file && errno == EINVAL) {
        file = os::FileDescriptor(::open(path.c_str(), usual));
    }
    if (!file) {
        throw agent::PosixError("the image " + path + " can't be opened", errno);
    }
    return file;
}

std::uint64_t sizeOf(const os::FileDescriptor& file, const std::string& path) {
    struct ::stat status{};
    if (::fstat(file.get(), &status) != 0) {
        throw agent::PosixError("the size of " + path + " can't be told", errno);
    }
    if (S_ISREG(status.st_mode)) {
        return static_cast<std::uint64_t>(status.st_size);
    }
    std::uint64_t bytes = 0;
    if (!S_ISBLK(status.st_mode) || ::ioctl(file.get(), BLKGETSIZE64, &bytes) != 0) {
        throw std::runtime_error(path + " is neither a file nor a block device");
    }
    return bytes;
}

} // namespace

FileImage::FileImage(std::string path, std::uint64_t offset)
    : path(std::move(path)),
      begin(offset),
      file(openForReading(this->path)),
      bytes(bytesAfter(this->path, sizeOf(file, this->path), begin) / sectorBytes * sectorBytes) {}

void FileImage::read(std::span<std::byte> into, std::uint64_t offset) {
    while (!into.empty()) {
        const ::ssize_t got =
            ::pread(file.get(), into.data(), into.size(), static_cast<::off_t>(begin + offset));
        if (got < 0 && (errno == EINTR || (errno == EINVAL && disableDirectIo(file)))) {
            continue;
        }
        if (got < 0) {
            throwReadFailure(path, offset, agent::PosixError::describe(errno));
        }
        if (got == 0) {
            throwReadFailure(path, offset, "it ends there");
        }
        into = into.subspan(static_cast<std::size_t>(got));
        offset += static_cast<std::uint64_t>(got);
    }
}

} // namespace restore
