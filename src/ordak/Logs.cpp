#include "ordak/Logs.h"

#include "common/Directory.h"
#include "info/log/FilePrinter.h"
#include "ordak/LogEntries.h"
#include "ordak/LogFileReader.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <limits>
#include <optional>
#include <stdexcept>
#include <utility>

namespace agent::ordak {

namespace {

/// The date in a name that parseLogFileDate has accepted.
std::string dateOf(const std::string& name) {
    return name.substr(4, 10);
}

} // namespace

/// The position of a line. The text is only built when it is needed.
struct Logs::Place {
    const std::string& fileName;
    std::uint64_t number;

    [[nodiscard]] std::string text() const { return dateOf(fileName) + " line " + std::to_string(number); }
};

/// The parameters of a request. Times are whole seconds, because a LogTime can't hold every date.
struct Logs::Query {
    std::size_t limit;
    std::time_t from;
    std::time_t until;
    int threshold;
};

namespace {

using info::LogTime;

constexpr long defaultLines = 1000;
constexpr long maxLines = 10000;

std::int64_t secondsOf(LogTime time) {
    return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

/// Returns an empty text if the argument is missing.
std::string argumentOf(const APIExtendedData& request, const char* name) {
    const auto found = request.args.find(name);
    return found == request.args.end() ? "" : found->second;
}

/// The local midnight of a date; nothing if `text` isn't a date.
std::optional<std::time_t> parseDate(const std::string& text) {
    std::tm broken{};
    broken.tm_isdst = -1;
    if (text.empty() || strptime(text.c_str(), "%Y-%m-%d", &broken) != text.data() + text.size()) {
        return std::nullopt;
    }
    const std::time_t midnight = std::mktime(&broken);
    return midnight == -1 ? std::nullopt : std::optional(midnight);
}

int readThreshold(const std::string& severity) {
    const int number = severity.empty() ? 0 : std::stoi(severity);
    return number >= 1 && number <= 5 ? info::level::max - number : info::level::info;
}

/// Whether `name` is the name of a log file whose date is in the requested range.
bool isWanted(const std::string& name, std::time_t from, std::time_t until) {
    try {
        const std::time_t midnight = secondsOf(info::FilePrinter::parseLogFileDate(name));
        return midnight >= from && midnight <= until;
    } catch (const std::logic_error&) {
        return false;
    }
}

} // namespace

Logs::Logs(info::Logger& logger, info::IDecorator& decorator) : logger(logger), decorator(decorator) {}

APIResponse Logs::operator()(const std::string& /*body*/, const APIExtendedData& request) {
    const Query query = readQuery(request);
    LogEntries entries(query.limit);
    readDirectory(query, entries);
    return makeJsonResponse(entries.release(), 200);
}

Logs::Query Logs::readQuery(const APIExtendedData& request) {
    Query query{};
    query.limit = readLimit(argumentOf(request, "lines"));
    query.from = parseDate(argumentOf(request, "from")).value_or(std::numeric_limits<std::time_t>::min());
    query.until = parseDate(argumentOf(request, "until")).value_or(std::numeric_limits<std::time_t>::max());
    query.threshold = readThreshold(argumentOf(request, "severity"));
    query.from = std::max(query.from, std::time(nullptr) - info::FilePrinter::retention.count());
    return query;
}

std::size_t Logs::readLimit(const std::string& lines) {
    if (lines.empty()) {
        return defaultLines;
    }
    char* end = nullptr;
    const long number = std::strtol(lines.c_str(), &end, 10); // a number out of range becomes the limit
    if (end == lines.c_str()) {
        throw std::invalid_argument("The lines parameter is no number: " + lines);
    }
    if (number > maxLines) {
        info::LogEntry(logger, info::level::warning)
            << "Ignoring lines parameter value which exceeds maximum of " << maxLines;
    }
    return static_cast<std::size_t>(std::clamp(number, 0L, maxLines));
}

void Logs::readDirectory(const Query& query, LogEntries& entries) {
    try {
        for (const std::string& name : dir::list(info::FilePrinter::logDirectory())) {
            if (isWanted(name, query.from, query.until)) {
                readFile(name, query, entries);
            }
        }
    } catch (const std::exception& error) {
        entries.addError(error.what());
    }
}

void Logs::readFile(const std::string& name, const Query& query, LogEntries& entries) {
    try {
        LogFileReader file(info::FilePrinter::logDirectory() / name);
        std::string line;
        for (std::uint64_t number = 1; file.next(line); ++number) {
            readLine(line, {name, number}, query.threshold, entries);
        }
    } catch (const std::exception&) {
        entries.addError("failed reading log file for " + dateOf(name));
    }
}

void Logs::readLine(const std::string& line, const Place& place, int threshold, LogEntries& entries) {
    try {
        int level = info::level::info;
        LogTime time;
        std::string message = decorator.undecorate(line, level, time);
        if (level <= threshold) {
            entries.addLine({std::move(message), info::level::max - level, secondsOf(time)});
        }
    } catch (const std::logic_error& error) {
        // This is a further line of a message: only the first line of a message is decorated.
        if (!entries.continueLine(line)) {
            entries.addError(place.text() + ": " + error.what());
        }
    } catch (const std::exception& error) {
        entries.addError(place.text() + ": " + error.what());
    }
}

} // namespace agent::ordak
