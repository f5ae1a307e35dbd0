#include "ordak/LogLevel.h"

#include "common/Exceptions.h"
#include "common/json/ParseJson.h"
#include "common/json/WholeNumber.h"

#include <nlohmann/json.hpp>

#include <exception>
#include <optional>

namespace agent::ordak {

namespace {

using nlohmann::json;

constexpr int lowestSeverity = 0;
constexpr int highestSeverity = 6;

json parseLevel(const std::string& body) {
    try {
        return parseJson(body);
    } catch (const std::exception& error) {
        throw exception::bad_request(std::string("JSON parsing error in logLevel callback ") + error.what());
    }
}

json severityOf(const json& request) {
    if (!request.contains("severity")) {
        throw exception::bad_request("logLevel event received with no 'severity' parameter sent");
    }
    json severity = request.at("severity");
    if (!severity.is_number()) {
        throw exception::bad_request(std::string("logLevel 'severity' parameter must be a number, but is ") +
                                     severity.type_name());
    }
    return severity;
}

int clampSeverity(info::Logger& logger, const json& severity) {
    const std::optional<std::int64_t> number = wholeNumber<std::int64_t>(severity);
    if (number && *number >= lowestSeverity && *number <= highestSeverity) {
        return static_cast<int>(*number);
    }
    info::LogEntry(logger, info::level::warning)
        << "JSON parameter 'severity = " << severity.dump() << "' being clamped into range [0, 6]";
    // A number that no integer can hold is far outside the range, too; its sign shows on which side.
    return severity.get<double>() < 0 ? lowestSeverity : highestSeverity;
}

} // namespace

LogLevel::LogLevel(info::Logger& logger, info::StoredLevelFilter& filter) : logger(logger), filter(filter) {}

APIResponse LogLevel::operator()(const std::string& body) {
    const int level = info::level::max - clampSeverity(logger, severityOf(parseLevel(body)));
    filter.setLevel(level);
    info::LogEntry(logger, info::level::debug) << "Log level set to " << info::levelName(level);
    return {};
}

} // namespace agent::ordak
