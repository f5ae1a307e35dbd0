#include "info/log/FilePrinter.h"

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "common/Exceptions.h"
#include "common/File.h"
#include "info/log/LocalTime.h"
#include "info/log/LoggingError.h"
#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <array>
#include <ctime>
#include <fcntl.h>
#include <optional>
#include <stdexcept>

namespace agent::info {

namespace {

constexpr mode_t logFileMode = 0640;

} // namespace

Path FilePrinter::logDirectory() {
    return dir::base() / "logs";
}

std::string FilePrinter::logFileName(LogTime time) {
    const std::time_t seconds =
        std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
    std::tm broken{};
    localtime_r(&seconds, &broken);
    std::array<char, 25> date{};
    std::strftime(date.data(), date.size(), "%F", &broken);
    return std::string("bek_") + date.data() + ".log";
}

LogTime FilePrinter::parseLogFileDate(const std::string& name) {
    if (name.size() != 18) {
        throw std::logic_error("Invalid log file: bad filename length " + std::to_string(name.size()));
    }
    if (name.compare(0, 4, "bek_") != 0) {
        throw std::logic_error("Invalid log file: bad filename prefix");
    }
    if (name[8] != '-' || name[11] != '-') {
        throw std::logic_error("Invalid log file: bad filename format");
    }
    if (name.compare(14, 4, ".log") != 0) {
        throw std::logic_error("Invalid log file: bad filename suffix");
    }
    std::tm broken{};
    strptime(name.substr(4, 10).c_str(), "%Y-%m-%d", &broken);
    broken.tm_isdst = -1;
    const std::optional<LogTime> midnight = toLogTime(broken);
    if (!midnight) {
        throw std::logic_error("Could not interpret string as date stamp");
    }
    return *midnight;
}

bool FilePrinter::print(const std::string& message, int /*level*/, LogTime time) {
    const Path directory = logDirectory();
    try {
        dir::make(directory);
    } catch (const std::exception& error) {
        reportLoggingError(error.what());
        return false;
    }
    const Path path = directory / logFileName(time);
    if (!file::exists(path)) {
        removeOldFiles(directory, time);
    }
    const os::FileDescriptor log(
        ::open(path.str().c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, logFileMode));
    if (!log) {
        reportLoggingError("Could not open output log file");
        return false;
    }
    if (!os::writeAll(log.get(), message)) {
        reportLoggingError("File stream error occurred while outputting log message");
        return false;
    }
    return true;
}

std::size_t FilePrinter::removeOldFiles(const Path& directory, LogTime now) {
    std::vector<std::string> names;
    try {
        names = dir::list(directory);
    } catch (const exception::library_error&) {
        return 0;
    }
    std::size_t removed = 0;
    for (const std::string& name : names) {
        try {
            if (parseLogFileDate(name) < now - retention) {
                file::remove(directory / name);
                ++removed;
            }
        } catch (const std::exception&) { // NOLINT(bugprone-empty-catch)
            // This isn't one of the agent's files, or it can't be removed: leave it.
        }
    }
    return removed;
}

} // namespace agent::info
