#include "info/log/LocalTime.h"

namespace agent::info {

std::optional<LogTime> toLogTime(std::tm broken) {
    using std::chrono::seconds;
    // One second away from the limits, so that the caller can still add a fraction of a second.
    constexpr auto first = std::chrono::duration_cast<seconds>(LogTime::min().time_since_epoch()).count() + 1;
    constexpr auto last = std::chrono::duration_cast<seconds>(LogTime::max().time_since_epoch()).count() - 1;
    const std::time_t moment = std::mktime(&broken);
    if (moment == -1 || moment < first || moment > last) {
        return std::nullopt;
    }
    return LogTime(seconds(moment));
}

} // namespace agent::info
