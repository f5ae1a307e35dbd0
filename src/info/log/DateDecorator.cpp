#include "info/log/DateDecorator.h"

#include "info/log/LocalTime.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <ctime>
#include <iomanip>
#include <optional>
#include <sstream>
#include <stdexcept>

namespace agent::info {

namespace {

constexpr std::size_t stampLength = 23;
constexpr std::size_t millisecondsPosition = 20;

/// Throws std::logic_error if `stamp` isn't a time stamp.
LogTime parseStamp(const std::string& stamp) {
    std::tm broken{};
    broken.tm_isdst = -1;
    const bool parsed =
        strptime(stamp.c_str(), "%Y-%m-%d %T.", &broken) == stamp.c_str() + millisecondsPosition;
    const bool digits = std::all_of(stamp.begin() + millisecondsPosition, stamp.end(),
                                    [](unsigned char character) { return std::isdigit(character) != 0; });
    const std::optional<LogTime> second = parsed && digits ? toLogTime(broken) : std::nullopt;
    if (!second) {
        throw std::logic_error("Could not interpret string as date time stamp");
    }
    return *second + std::chrono::milliseconds(std::stoi(stamp.substr(millisecondsPosition)));
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
