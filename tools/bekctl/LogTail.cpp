#include "LogTail.h"

#include "common/Directory.h"
#include "common/File.h"
#include "common/PosixError.h"
#include "info/log/FilePrinter.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace bekctl {

namespace {

constexpr std::size_t blockBytes = 65'536;

bool isLog(const std::string& name) {
    try {
        agent::info::FilePrinter::parseLogFileDate(name);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

/// Reads up to `size` bytes at `offset`; fewer only at the end of the file.
std::string readAt(int descriptor, std::size_t size, ::off_t offset) {
    std::string data(size, '\0');
    const ::ssize_t got = ::pread(descriptor, data.data(), data.size(), offset);
    if (got < 0) {
        throw agent::PosixError("reading the log failed", errno);
    }
    data.resize(static_cast<std::size_t>(got));
    return data;
}

/// Returns no descriptor if the file is gone, or isn't a regular file: reading a pipe could block for ever.
os::FileDescriptor openRegular(const std::string& path) {
    os::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file && errno != ENOENT) {
        throw agent::PosixError("open(\"" + path + "\") failed", errno);
    }
    struct ::stat status = {};
    if (file && (::fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        return {};
    }
    return file;
}

} // namespace

void LogTail::goToLast(std::size_t lines) {
    const std::vector<std::string> all = names();
    for (auto each = all.rbegin(); each != all.rend(); ++each) {
        open(*each);
        lines -= goBack(lines);
        if (lines == 0) {
            return;
        }
    }
}

bool LogTail::next(std::string& line) {
    while (!takeLine(line)) {
        // Looked up before this file is read to its end: the agent has finished with it once a later one
        // exists.
        const std::string later = nextFileName();
        if (fill()) {
            continue;
        }
        if (later.empty()) {
            return false;
        }
        open(later);
    }
    return true;
}

bool LogTail::takeLine(std::string& line) {
    const std::size_t end = pending.find('\n');
    if (end != std::string::npos) {
        line = pending.substr(0, end);
        pending.erase(0, end + 1);
        return true;
    }
    if (pending.size() < longestLine) {
        return false;
    }
    line = std::exchange(pending, {});
    return true;
}

bool LogTail::fill() {
    if (!file) {
        return false;
    }
    std::string data(blockBytes, '\0');
    const ::ssize_t got = ::read(file.get(), data.data(), data.size());
    if (got < 0) {
        throw agent::PosixError("reading the log failed", errno);
    }
    pending.append(data, 0, static_cast<std::size_t>(got));
    return got > 0;
}

/// If the previous file ended without a newline, its last text is a line as well.
void LogTail::open(const std::string& file) {
    this->file = openRegular(directory / file);
    name = file;
    if (!pending.empty()) {
        pending += '\n';
    }
}

/// Seeks to the beginning of the file's last lines, and returns how many there are, at most `lines`.
std::size_t LogTail::goBack(std::size_t lines) {
    const ::off_t size = file ? ::lseek(file.get(), 0, SEEK_END) : 0;
    std::size_t found = 0;
    ::off_t position = size;
    ::off_t begin = size; // where the lines found so far begin
    while (position > 0 && found < lines) {
        const auto bytes = std::min<::off_t>(position, blockBytes);
        position -= bytes;
        const std::string data = readAt(file.get(), static_cast<std::size_t>(bytes), position);
        for (auto at = static_cast<::off_t>(data.size()); at > 0 && found < lines; --at) {
            const bool isEndOfLine = data[static_cast<std::size_t>(at - 1)] == '\n';
            if (isEndOfLine && position + at < size) {
                begin = position + at;
                ++found;
            }
        }
    }
    if (position == 0 && found < lines && size > 0) {
        begin = 0; // the first line has no newline before it
        ++found;
    }
    if (file && ::lseek(file.get(), begin, SEEK_SET) < 0) {
        throw agent::PosixError("lseek in the log failed", errno);
    }
    return found;
}

/// Sorted by day, oldest first.
std::vector<std::string> LogTail::names() const {
    if (!agent::file::exists(directory)) {
        return {};
    }
    std::vector<std::string> found = agent::dir::list(directory);
    std::erase_if(found, [](const std::string& each) { return !isLog(each); });
    std::ranges::sort(found);
    return found;
}

/// The next day's file; empty if there is none.
std::string LogTail::nextFileName() const {
    const std::vector<std::string> all = names();
    const auto found = std::ranges::upper_bound(all, name);
    return found == all.end() ? "" : *found;
}

} // namespace bekctl
