#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace agent::bench {

/// Prints the usual table, and keeps the time of each benchmark, so that a line can compare it with its peer.
/// The best of several runs counts, as the machine's other work comes and goes.
class TimingReporter : public benchmark::ConsoleReporter {
public:
    enum class Clock { real, processor };

    explicit TimingReporter(Clock clock = Clock::real) : clock(clock) {}

    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const double taken = secondsOf(run);
            if (taken > 0) { // a failed run has taken no time
                keepBest(run.run_name.function_name, taken);
            }
        }
    }

    /// Calls `print(seconds)` if the benchmark has run: a filter may have left it out.
    template <class Print>
    void show(const std::string& name, const Print& print) const {
        const auto own = seconds.find(name);
        if (own != seconds.end()) {
            print(own->second);
        }
    }

    /// Calls `print(seconds, seconds of the peer)` if both have run.
    template <class Print>
    void compare(const std::string& name, const std::string& peerName, const Print& print) const {
        const auto peer = seconds.find(peerName);
        if (peer != seconds.end()) {
            show(name, [&](double own) { print(own, peer->second); });
        }
    }

private:
    [[nodiscard]] double secondsOf(const Run& run) const {
        const double total = clock == Clock::real ? run.real_accumulated_time : run.cpu_accumulated_time;
        return total / static_cast<double>(run.iterations);
    }

    void keepBest(const std::string& name, double value) {
        const auto [best, isFirst] = seconds.try_emplace(name, value);
        best->second = std::min(best->second, value);
    }

    Clock clock;
    std::map<std::string, double> seconds;
};

} // namespace agent::bench
