#include "ordak/LogFileReader.h"

#include "common/PosixError.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>

namespace agent::ordak {

namespace {

constexpr std::size_t bufferSize = 256UL * 1024;

} // namespace

LogFileReader::LogFileReader(const std::string& path)
    : file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)), buffer(bufferSize) {
    if (!file) {
        throw PosixError("open of \"" + path + "\" failed", errno);
    }
    struct ::stat status{};
    if (::fstat(file.get(), &status) != 0) {
        throw PosixError("fstat of \"" + path + "\" failed", errno);
    }
    if (!S_ISREG(status.st_mode)) {
        throw std::runtime_error("\"" + path + "\" is no regular file");
    }
}

bool LogFileReader::next(std::string& line) {
    line.clear();
    bool started = false;
    while (position < end || fill()) {
        started = true;
        const char* const rest = buffer.data() + position;
        const auto* const newline = static_cast<const char*>(std::memchr(rest, '\n', end - position));
        const std::size_t length =
            newline != nullptr ? static_cast<std::size_t>(newline - rest) : end - position;
        line.append(rest, std::min(length, maxLineBytes - line.size()));
        position += length;
        if (newline != nullptr) {
            ++position;
            return true;
        }
    }
    return started;
}

/// Refills the buffer. Returns false at the end of the file.
bool LogFileReader::fill() {
    ssize_t count = 0;
    do {
        count = ::read(file.get(), buffer.data(), buffer.size());
    } while (count < 0 && errno == EINTR);
    if (count < 0) {
        throw PosixError("read of a log file failed", errno);
    }
    position = 0;
    end = static_cast<std::size_t>(count);
    return count > 0;
}

} // namespace agent::ordak
