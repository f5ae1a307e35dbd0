#pragma once

#include <chrono>
#include <cstdint>
#include <iosfwd>
#include <string>

namespace tools {

/// The progress of a long operation in one line: "copying  37 %  1.2 GB of 3.4 GB  152.3 MB/s  12.0 s left".
/// The rate is left out until it is known.
std::string progressText(const std::string& what, std::uint64_t done, std::uint64_t all,
                         double bytesPerSecond);

/// Shows on a terminal how far a long operation is, in a line that is rewritten a few times a second. Shows
/// nothing if there is no terminal.
/// Owns:    nothing; the stream must outlive it.
/// Threads: one at a time.
/// Fails:   never.
class Progress {
public:
    using Clock = std::chrono::steady_clock;

    /// `out` is a terminal with this many columns; 0 columns stand for no terminal.
    Progress(std::ostream& out, std::size_t columns);
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    /// Clears the line.
    ~Progress();
    /// For standard error, if that is a terminal.
    static Progress ofStandardError();

    [[nodiscard]] bool isShown() const { return columns != 0; }
    /// Another `name` begins another operation.
    void show(const std::string& name, std::uint64_t done, std::uint64_t all,
              Clock::time_point now = Clock::now());

private:
    void begin(const std::string& name, std::uint64_t done, Clock::time_point now);
    void measure(std::uint64_t done, Clock::time_point now);

    std::ostream& out;
    std::size_t columns;
    std::string what;
    Clock::time_point shown;
    Clock::time_point measured; // when the rate was measured last
    std::uint64_t measuredAt = 0;
    double rate = 0; // bytes per second; 0 if not known yet
};

} // namespace tools
