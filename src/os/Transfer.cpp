#include "os/Transfer.h"

#include <cerrno>
#include <unistd.h>

namespace os {

namespace {

/// Calls `step` until all bytes are transferred, the file ends or an error occurs. `step` gets the bytes that
/// remain and the number of bytes that are already transferred.
template <typename Bytes, typename Step>
Transfer transfer(Bytes bytes, const Step& step) noexcept {
    Transfer done;
    while (done.bytes < bytes.size()) {
        const ssize_t count = step(bytes.subspan(done.bytes), done.bytes);
        if (count == 0) {
            break;
        }
        if (count > 0) {
            done.bytes += static_cast<std::size_t>(count);
        } else if (errno != EINTR) {
            done.error = errno;
            break;
        }
    }
    return done;
}

/// Whether everything was written. If not, sets `errno`: to EIO if the system call neither wrote nor failed.
bool isWhole(const Transfer& written, std::size_t size) noexcept {
    if (written.bytes == size) {
        return true;
    }
    errno = written.error != 0 ? written.error : EIO;
    return false;
}

off_t position(std::uint64_t offset, std::size_t done) noexcept {
    return static_cast<off_t>(offset + done);
}

} // namespace

Transfer readUpTo(int descriptor, std::span<std::byte> into) noexcept {
    return transfer(into, [&](std::span<std::byte> rest, std::size_t) {
        return ::read(descriptor, rest.data(), rest.size());
    });
}

Transfer readUpToAt(int descriptor, std::span<std::byte> into, std::uint64_t offset) noexcept {
    return transfer(into, [&](std::span<std::byte> rest, std::size_t done) {
        return ::pread(descriptor, rest.data(), rest.size(), position(offset, done));
    });
}

bool writeAll(int descriptor, std::span<const std::byte> content) noexcept {
    const Transfer written = transfer(content, [&](std::span<const std::byte> rest, std::size_t) {
        return ::write(descriptor, rest.data(), rest.size());
    });
    return isWhole(written, content.size());
}

bool writeAll(int descriptor, std::string_view content) noexcept {
    return writeAll(descriptor, std::as_bytes(std::span(content)));
}

bool writeAllAt(int descriptor, std::span<const std::byte> content, std::uint64_t offset) noexcept {
    const Transfer written = transfer(content, [&](std::span<const std::byte> rest, std::size_t done) {
        return ::pwrite(descriptor, rest.data(), rest.size(), position(offset, done));
    });
    return isWhole(written, content.size());
}

} // namespace os
