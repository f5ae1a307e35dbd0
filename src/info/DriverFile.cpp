#include "info/DriverFile.h"

#include "os/SparseFile.h"
#include "os/Transfer.h"

#include <cerrno>
#include <fcntl.h>
#include <unistd.h>
#include <utility>

namespace agent::info {

namespace {

constexpr mode_t ownerOnly = 0600;

int flagsOf(DriverFile::Access access) {
    constexpr int common = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK;
    switch (access) {
    case DriverFile::Access::read:
        return common | O_RDONLY;
    case DriverFile::Access::update:
        return common | O_RDWR;
    case DriverFile::Access::replace:
        return common | O_WRONLY | O_CREAT | O_TRUNC;
    }
    return common;
}

} // namespace

DriverFile::DriverFile(std::string path, Access access)
    : location(std::move(path)), descriptor(::open(location.c_str(), flagsOf(access), ownerOnly)) {}

bool DriverFile::seek(std::uint64_t position) {
    return ::lseek(descriptor.get(), static_cast<off_t>(position), SEEK_SET) >= 0;
}

std::optional<std::uint64_t> DriverFile::seekToEnd() {
    const off_t end = ::lseek(descriptor.get(), 0, SEEK_END);
    return end < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(end));
}

bool DriverFile::read(std::span<std::byte> buffer) {
    const os::Transfer reading = os::readUpTo(descriptor.get(), buffer);
    if (reading.bytes == buffer.size()) {
        return true;
    }
    errno = reading.error != 0 ? reading.error : ENODATA;
    return false;
}

bool DriverFile::write(std::span<const std::byte> buffer) {
    return os::writeAll(descriptor.get(), buffer);
}

bool DriverFile::reserve(std::uint64_t position, std::uint64_t length) {
    return ::fallocate(descriptor.get(), 0, static_cast<off_t>(position), static_cast<off_t>(length)) == 0;
}

bool DriverFile::isHole(std::uint64_t position, std::uint64_t length) {
    return os::holeLengthAt(descriptor.get(), position, length) == length;
}

bool DriverFile::sync() {
    return ::fsync(descriptor.get()) == 0;
}

} // namespace agent::info
