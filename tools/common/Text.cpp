#include "Text.h"

#include "common/PeerText.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstddef>
#include <iomanip>
#include <sstream>

namespace tools {

namespace {

constexpr std::size_t longestText = 1024;

std::string formatted(const std::tm& broken, const char* format) {
    std::ostringstream text;
    text << std::put_time(&broken, format);
    return text.str();
}

} // namespace

std::string sizeText(std::uint64_t bytes) {
    constexpr std::array<const char*, 6> units{"kB", "MB", "GB", "TB", "PB", "EB"};
    constexpr double step = 1000;
    if (bytes < 1000) {
        return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes");
    }
    auto shown = static_cast<double>(bytes) / step;
    std::size_t unit = 0;
    while (shown >= 999.95 && unit + 1 < units.size()) { // this would be rounded to 1000.0
        shown /= step;
        ++unit;
    }
    std::ostringstream text;
    text << std::fixed << std::setprecision(1) << shown << ' ' << units.at(unit);
    return text.str();
}

std::string durationText(double seconds) {
    constexpr double longest = 1e12; // more than any backup takes, and a whole number can hold it
    const double bounded = std::isfinite(seconds) ? std::clamp(seconds, 0.0, longest) : 0.0;
    std::ostringstream text;
    if (bounded < 59.95) {
        text << std::fixed << std::setprecision(1) << bounded << " s";
        return text.str();
    }
    const auto whole = static_cast<std::uint64_t>(std::llround(bounded));
    const std::uint64_t minutes = whole / 60;
    if (minutes < 60) {
        text << minutes << " min " << whole % 60 << " s";
    } else {
        text << minutes / 60 << " h " << minutes % 60 << " min";
    }
    return text.str();
}

std::string localText(std::time_t moment) {
    std::tm broken{};
    return ::localtime_r(&moment, &broken) == nullptr ? "?" : formatted(broken, "%Y-%m-%d %H:%M:%S");
}

std::string utcText(std::time_t moment) {
    std::tm broken{};
    return ::gmtime_r(&moment, &broken) == nullptr ? "?" : formatted(broken, "%Y-%m-%dT%H:%M:%SZ");
}

std::string plain(const std::string& text) {
    return agent::printable(agent::shortened(text, longestText));
}

} // namespace tools
