#include "info/HumanSize.h"

#include <array>
#include <cstddef>
#include <sstream>

namespace agent::info {

namespace {

constexpr std::array<const char*, 7> units{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
constexpr std::uint64_t step = 1024;

} // namespace

std::string formatHumanSize(std::uint64_t bytes) {
    std::size_t unit = 0;
    auto shown = static_cast<double>(bytes);
    while (bytes >= step && unit + 1 < units.size()) {
        shown = static_cast<double>(bytes) / static_cast<double>(step);
        bytes /= step;
        ++unit;
    }
    std::ostringstream text;
    text << shown << ' ' << units.at(unit);
    return text.str();
}

} // namespace agent::info
