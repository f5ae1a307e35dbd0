#include "info/log/DateDecorator.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <iomanip>
#include <sstream>
#include <stdexcept>

namespace agent::info {

namespace {

constexpr std::size_t stampLength = 23;
constexpr std::size_t millisecondsPosition = 20;

LogTime parseStamp(const std::string& stamp) {
    const std::logic_error failure("Could not interpret string as date time stamp");
    if (stamp.size() != stampLength) {
        throw failure;
    }
    std::tm broken{};
    broken.tm_isdst = -1;
    const char* end = strptime(stamp.c_str(), "%Y-%m-%d %T.", &broken);
    const std::string milliseconds = stamp.substr(millisecondsPosition);
    const bool digits = std::all_of(milliseconds.begin(), milliseconds.end(),
                                    [](unsigned char character) { return std::isdigit(character) != 0; });
    if (end != stamp.c_str() + millisecondsPosition || !digits) {
        throw failure;
    }
    const std::time_t seconds = std::mktime(&broken);
    if (seconds == -1) {
        throw failure;
    }
    return LogTime(std::chrono::seconds(seconds) + std::chrono::milliseconds(std::stoi(milliseconds)));
}

} // namespace

std::string DateDecorator::decorate(const std::string& message, int /*level*/, LogTime time) {
    const auto sinceEpoch = time.time_since_epoch();
    const std::time_t seconds = std::chrono::duration_cast<std::chrono::seconds>(sinceEpoch).count();
    const auto milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(sinceEpoch).count() % 1000;
    std::tm broken{};
    localtime_r(&seconds, &broken);
    std::array<char, 25> buffer{};
    std::strftime(buffer.data(), buffer.size(), "%F %T.", &broken);
    std::ostringstream line;
    line << buffer.data() << std::setw(3) << std::setfill('0') << milliseconds << ' ' << message;
    return line.str();
}

std::string DateDecorator::undecorate(const std::string& line, int& /*level*/, LogTime& time) {
    try {
        if (line.size() <= stampLength || line[stampLength] != ' ') {
            throw std::logic_error("no blank behind the stamp");
        }
        time = parseStamp(line.substr(0, stampLength));
        return line.substr(stampLength + 1);
    } catch (const std::exception&) {
        throw std::logic_error("Could not parse date out of formatted log message: " + line);
    }
}

} // namespace agent::info
