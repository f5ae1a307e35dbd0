#pragma once

#include "info/log/IDecorator.h"
#include "info/log/Logger.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

class LogEntries;

/// GET /event: the newest lines of the agent's log files within their retention, filtered by the arguments
/// "lines", "from", "until" and "severity". The files are streamed, so that memory doesn't grow with them;
/// LogFileReader and LogEntries hold the limits.
///
/// Files are read in the order of the directory. An argument without a value counts as missing. A negative
/// number of lines means 0, and a number above the maximum of 10000 means the maximum.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it; the files may grow meanwhile.
/// Fails:   throws std::invalid_argument or std::out_of_range for an invalid number. The response lists files
///          and lines that can't be read.
class Logs {
public:
    /// `decorator` parses the lines of the log files.
    Logs(info::Logger& logger, info::IDecorator& decorator);
    APIResponse operator()(const std::string& body, const APIExtendedData& request);

private:
    struct Place;
    struct Query;

    [[nodiscard]] Query readQuery(const APIExtendedData& request);
    [[nodiscard]] std::size_t readLimit(const std::string& lines);
    void readDirectory(const Query& query, LogEntries& entries);
    void readFile(const std::string& name, const Query& query, LogEntries& entries);
    void readLine(const std::string& line, const Place& place, int threshold, LogEntries& entries);

    info::Logger& logger;
    info::IDecorator& decorator;
};

} // namespace agent::ordak
