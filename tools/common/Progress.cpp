#include "Progress.h"

#include "Text.h"

#include <cmath>
#include <iostream>
#include <sys/ioctl.h>
#include <unistd.h>

namespace tools {

namespace {

constexpr std::chrono::milliseconds showEvery(200);
constexpr double secondsOfRate = 10; // after this time, a measurement has lost two thirds of its weight
constexpr const char* clearLine = "\r\x1b[K";

std::size_t columnsOfStandardError() {
    winsize size{};
    const bool isKnown = ::isatty(STDERR_FILENO) != 0 && ::ioctl(STDERR_FILENO, TIOCGWINSZ, &size) == 0;
    constexpr std::size_t usual = 80;
    return !isKnown ? 0 : size.ws_col > 0 ? size.ws_col : usual;
}

} // namespace

std::string progressText(const std::string& what, std::uint64_t done, std::uint64_t all,
                         double bytesPerSecond) {
    const double share = all == 0 ? 1 : static_cast<double>(done) / static_cast<double>(all);
    std::string text = what + "  " + std::to_string(static_cast<int>(100 * share)) + " %  " + sizeText(done) +
                       " of " + sizeText(all);
    if (bytesPerSecond >= 1) {
        const double left = static_cast<double>(all > done ? all - done : 0) / bytesPerSecond;
        text += "  " + sizeText(static_cast<std::uint64_t>(bytesPerSecond)) + "/s  " + durationText(left) +
                " left";
    }
    return text;
}

Progress::Progress(std::ostream& out, std::size_t columns) : out(out), columns(columns) {}

Progress Progress::ofStandardError() {
    return {std::cerr, columnsOfStandardError()};
}

Progress::~Progress() {
    if (!what.empty()) {
        out << clearLine << std::flush;
    }
}

void Progress::show(const std::string& name, std::uint64_t done, std::uint64_t all, Clock::time_point now) {
    if (columns == 0) {
        return;
    }
    if (name != what) {
        begin(name, done, now);
    } else if (now - shown < showEvery) {
        return;
    }
    measure(done, now);
    shown = now;
    out << clearLine << progressText(what, done, all, rate).substr(0, columns - 1) << std::flush;
}

void Progress::begin(const std::string& name, std::uint64_t done, Clock::time_point now) {
    what = name;
    measured = now;
    measuredAt = done;
    rate = 0;
}

/// The rate follows changes within seconds, but doesn't jump with each piece.
void Progress::measure(std::uint64_t done, Clock::time_point now) {
    const double seconds = std::chrono::duration<double>(now - measured).count();
    if (seconds <= 0 || done <= measuredAt) {
        return;
    }
    const double current = static_cast<double>(done - measuredAt) / seconds;
    const double weight = rate == 0 ? 1 : 1 - std::exp(-seconds / secondsOfRate);
    rate += weight * (current - rate);
    measured = now;
    measuredAt = done;
}

} // namespace tools
