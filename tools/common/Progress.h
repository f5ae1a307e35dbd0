#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace tools {

/// What a long piece of work has done, in one line: "copying  37 %  1.2 GB of 3.4 GB  152.3 MB/s  12.0 s
/// left". Without a rate while none can be told.
std::string progressText(const std::string& what, std::uint64_t done, std::uint64_t all,
                         double bytesPerSecond);

/// Shows on a terminal how far a long piece of work is: a line that is written anew a few times a second.
/// Anywhere else it shows nothing.
/// Threads: one at a time.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// `out` is a terminal of that many columns, or 0 for no terminal.
    Progress(std::ostream& out, std::size_t columns);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    /// Leaves no trace on the terminal.
    ~Progress();
    /// On standard error, if that is a terminal.
    static Progress ofStandardError();

    [[nodiscard]] bool isShown() const { return columns != 0; }
    /// With another name another work begins.
    void show(const std::string& name, std::uint64_t done, std::uint64_t all,
              Clock::time_point now = Clock::now());

private:
    void begin(const std::string& name, std::uint64_t done, Clock::time_point now);
    void measure(std::uint64_t done, Clock::time_point now);

    std::ostream& out;
    std::size_t columns;
    std::string what;
    Clock::time_point shown;
    Clock::time_point measured; // where the rate was measured last
    std::uint64_t measuredAt = 0;
    double rate = 0; // bytes a second; 0 for not known yet
};

} // namespace tools
