#include "ordak/LogEntries.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <utility>

namespace agent::ordak {

void LogEntries::addLine(Line line) {
    if (limit == 0) {
        return;
    }
    lineBytes += line.message.size();
    while (!lines.empty() && (lines.size() >= limit || lineBytes > maxListBytes)) {
        dropOldestLine();
    }
    lines.push_back(std::move(line));
}

void LogEntries::addError(std::string text) {
    if (limit == 0) {
        return;
    }
    errorBytes += text.size();
    while (!errors.empty() && (errors.size() >= limit || errorBytes > maxListBytes)) {
        dropOldestError();
    }
    errors.push_back(std::move(text));
}

bool LogEntries::continueLine(const std::string& raw) {
    if (lines.empty()) {
        return false;
    }
    std::string& message = lines.back().message;
    const std::size_t room = maxMessageBytes - std::min(message.size(), maxMessageBytes);
    if (room == 0) {
        return true;
    }
    message += '\n';
    message.append(raw, 0, room - 1);
    lineBytes += 1 + std::min(raw.size(), room - 1);
    while (lines.size() > 1 && lineBytes > maxListBytes) {
        dropOldestLine();
    }
    return true;
}

nlohmann::json LogEntries::release() {
    using nlohmann::json;
    json log = json::array();
    for (; !lines.empty(); lines.pop_front()) {
        Line& line = lines.front();
        json& entry = log.emplace_back(json::object());
        entry["message"] = std::move(line.message); // an initialiser list would copy it
        entry["severity"] = line.severity;
        entry["timestamp"] = line.timestamp;
    }
    lineBytes = 0;
    json problems = json::array();
    for (std::string& text : errors) {
        problems.push_back(std::move(text));
    }
    errors.clear();
    errorBytes = 0;
    return {{"log", std::move(log)}, {"error", std::move(problems)}};
}

void LogEntries::dropOldestLine() {
    lineBytes -= lines.front().message.size();
    lines.pop_front();
}

void LogEntries::dropOldestError() {
    errorBytes -= errors.front().size();
    errors.pop_front();
}

} // namespace agent::ordak
