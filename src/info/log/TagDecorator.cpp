#include "info/log/TagDecorator.h"

#include "info/log/LogLevel.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string_view>

namespace agent::info {

namespace {

constexpr std::size_t tagLength = 12;
constexpr std::array<std::string_view, 5> tags = {"[CRITICAL:] ", "[ERROR:]    ", "[WARNING:]  ",
                                                  "[INFO:]     ", "[DEBUG:]    "};
static_assert(std::all_of(tags.begin(), tags.end(), [](auto tag) { return tag.size() == tagLength; }));

} // namespace

std::string TagDecorator::decorate(const std::string& message, int level, LogTime /*time*/) {
    if (level > level::debug) {
        return message;
    }
    const auto index = static_cast<std::size_t>(std::max(level, level::critical));
    return std::string(tags.at(index)) + message;
}

std::string TagDecorator::undecorate(const std::string& line, int& level, LogTime& /*time*/) {
    const auto* const found =
        line.size() < tagLength ? tags.end() : std::find(tags.begin(), tags.end(), line.substr(0, tagLength));
    if (found == tags.end()) {
        throw std::logic_error("Could not parse tag information out of formatted log message: " + line);
    }
    level = static_cast<int>(found - tags.begin());
    return line.substr(tagLength);
}

} // namespace agent::info
