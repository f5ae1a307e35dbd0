#include "FileAccess.h"

#include "Failure.h"
#include "os/Transfer.h"

#include <fcntl.h>
#include <unistd.h>

namespace tolvubd {

os::FileDescriptor openFile(const std::string& path, int flags, mode_t mode) {
    os::FileDescriptor file(::open(path.c_str(), flags | O_CLOEXEC, mode));
    if (!file) {
        failWithErrno("open " + path);
    }
    return file;
}

std::size_t readAt(const os::FileDescriptor& file, std::span<std::byte> into, std::uint64_t offset) {
    const os::Transfer reading = os::readUpToAt(file.get(), into, offset);
    if (reading.error != 0) {
        fail(reading.error, "read");
    }
    return reading.bytes;
}

std::string readToEnd(const std::string& path) {
    const os::FileDescriptor file = openFile(path, O_RDONLY);
    std::string text;
    std::string piece(std::size_t{64} << 10, '\0');
    while (const std::size_t got = readAt(file, std::as_writable_bytes(std::span(piece)), text.size())) {
        text.append(piece, 0, got);
    }
    return text;
}

void writeAt(const os::FileDescriptor& file, std::span<const std::byte> from, std::uint64_t offset) {
    if (!os::writeAllAt(file.get(), from, offset)) {
        failWithErrno("write");
    }
}

void syncFile(const os::FileDescriptor& file, const std::string& path) {
    checked(::fsync(file.get()), "sync " + path);
}

void syncDirectory(const std::string& path) {
    syncFile(openFile(path, O_RDONLY | O_DIRECTORY), path);
}

void syncFileSystem(const std::string& mountPoint) {
    checked(::syncfs(openFile(mountPoint, O_RDONLY | O_DIRECTORY).get()), "sync " + mountPoint);
}

void removeFile(const std::string& path) {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
        failWithErrno("remove " + path);
    }
}

} // namespace tolvubd
