#include "info/DriverStatusFiles.h"

#include "common/PosixError.h"
#include "os/FileDescriptor.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <fcntl.h>
#include <stdexcept>
#include <tolvubd.h>
#include <unistd.h>

// The kernel driver's library doesn't define this symbol; its address is then null.
// NOLINTNEXTLINE(readability-redundant-declaration): the attribute is what this adds
extern "C" __attribute__((weak)) const tolvubd_status_files* tolvubd_get_status_files();

namespace agent::info {

namespace {

constexpr std::size_t maxStatusFileBytes = std::size_t{64} << 20U;

} // namespace

DriverStatusFiles DriverStatusFiles::ofRunningDriver() {
    if (tolvubd_get_status_files != nullptr) {
        const tolvubd_status_files* files = tolvubd_get_status_files();
        return {files->info, files->version};
    }
    return {"/proc/tolvu-info", "/sys/module/tolvubd/version"};
}

std::optional<std::string> readDriverStatusFile(const std::string& path) {
    const os::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        return std::nullopt;
    }
    // Files in /proc have no size, so the buffer can't be allocated in advance.
    std::string content;
    std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t count = ::read(file.get(), buffer.data(), buffer.size());
        if (count == 0) {
            return content;
        }
        if (count > 0) {
            content.append(buffer.data(), static_cast<std::size_t>(count));
        } else if (errno != EINTR) {
            throw PosixError("read of \"" + path + "\" failed", errno);
        }
        if (content.size() > maxStatusFileBytes) {
            throw std::runtime_error("\"" + path + "\" is too large");
        }
    }
}

} // namespace agent::info
