#include "Screen.h"

#include <cstdlib>
#include <string_view>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tools {

namespace {

constexpr std::size_t usualColumns = 80;

std::string_view codeOf(Colour colour) {
    switch (colour) {
    case Colour::green:
        return "32";
    case Colour::yellow:
        return "33";
    case Colour::red:
        return "31";
    case Colour::bold:
        return "1";
    case Colour::none:
        break;
    }
    return "";
}

bool isVariableSet(const char* name) {
    const char* const value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody sets any
    return value != nullptr && *value != '\0';
}

std::size_t columnsOfTerminal() {
    winsize size{};
    return ::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : usualColumns;
}

} // namespace

Screen Screen::ofStandardOutput(bool mayColour) {
    if (::isatty(STDOUT_FILENO) == 0) {
        return {};
    }
    return {mayColour && !isVariableSet("NO_COLOR"), columnsOfTerminal()};
}

std::string Screen::paint(Colour colour, const std::string& text) const {
    const std::string_view code = codeOf(colour);
    return !isColoured || code.empty() ? text : "\x1b[" + std::string(code) + "m" + text + "\x1b[0m";
}

} // namespace tools
