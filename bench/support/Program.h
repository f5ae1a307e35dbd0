#pragma once

#include "bench/support/TimingReporter.h"

namespace agent::bench {

/// One run of a program of benchmarks: those that its arguments ask for.
class Program {
public:
    /// Takes the framework's arguments out.
    Program(int& argumentCount, char** arguments, TimingReporter::Clock clock = TimingReporter::Clock::real)
        : reporter(clock) {
        benchmark::Initialize(&argumentCount, arguments);
    }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;
    ~Program() { benchmark::Shutdown(); }

    /// What they took.
    const TimingReporter& run() {
        benchmark::RunSpecifiedBenchmarks(&reporter);
        return reporter;
    }

private:
    TimingReporter reporter;
};

} // namespace agent::bench
