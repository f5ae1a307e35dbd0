#pragma once

#include "bench/support/TimingReporter.h"

namespace agent::bench {

/// One run of a benchmark program: of the benchmarks that its arguments select.
class Program {
public:
    /// Removes the framework's arguments.
    Program(int& argumentCount, char** arguments, TimingReporter::Clock clock = TimingReporter::Clock::real)
        : reporter(clock) {
        benchmark::Initialize(&argumentCount, arguments);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() { benchmark::Shutdown(); }

    /// Runs the benchmarks and returns their times.
    const TimingReporter& run() {
        benchmark::RunSpecifiedBenchmarks(&reporter);
        return reporter;
    }

private:
    TimingReporter reporter;
};

} // namespace agent::bench
