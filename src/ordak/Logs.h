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
/// Files come in the order of the directory. An argument without a value counts as missing. A number of lines
/// below zero asks for none; of more than a long holds, for the maximum.
/// Threads: safe from any; the files may grow meanwhile.
/// Fails:   std::invalid_argument or std::out_of_range for a number that is none. What can't be read is told
///          in the answer.
class Logs {
public:
    /// `decorator` takes apart what the log files hold.
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
