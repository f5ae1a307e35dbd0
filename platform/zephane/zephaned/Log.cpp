#include "zephane/zephaned/Log.h"

#include "os/Transfer.h"

#include <algorithm>
#include <array>
#include <ctime>

namespace zephane {

namespace {

constexpr std::size_t longestLine = 2000;

std::string printable(const std::string& text) {
    std::string line = text.substr(0, longestLine);
    std::ranges::replace_if(line, [](unsigned char c) { return c < ' ' || c == 0x7F; }, '?');
    return line;
}

std::string now() {
    const std::time_t seconds = std::time(nullptr);
    std::tm parts{};
    ::localtime_r(&seconds, &parts);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%F %T", &parts);
    return {text.data(), length};
}

} // namespace

void Log::write(const char* level, const std::string& text) const {
    os::writeAll(descriptor, now() + " " + level + ": " + printable(text) + "\n");
}

} // namespace zephane
