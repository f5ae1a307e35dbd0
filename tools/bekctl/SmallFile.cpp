#include "SmallFile.h"

#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <span>

namespace bekctl {

std::optional<std::string> readFile(const std::string& path, std::size_t most) {
    constexpr std::size_t piece = 65536;
    const os::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!file) {
        return std::nullopt;
    }
    std::string content;
    for (;;) {
        const std::size_t begin = content.size();
        content.resize(begin + std::min(piece, most + 1 - begin));
        const os::Transfer got =
            os::readUpTo(file.get(), std::as_writable_bytes(std::span(content).subspan(begin)));
        content.resize(begin + got.bytes);
        if (got.error != 0 || content.size() > most) {
            errno = got.error != 0 ? got.error : EFBIG;
            return std::nullopt;
        }
        if (got.bytes < piece) {
            return content;
        }
    }
}

} // namespace bekctl
