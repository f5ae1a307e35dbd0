#include "core/Heartbeat.h"
#include "core/operation/CancelableOperation.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <mutex>
#include <string>

/// What one cancellation point costs, of which a copy has one for each piece that it sends: with a watchdog
/// that is fed, and without one; beside the least that a watchdog can do, a look at the clock under a mutex.
namespace agent::bench {
namespace {

void checkAlone(benchmark::State& state) {
    core::CancelableOperation operation;
    operation.run([&](core::ICancel& cancel) {
        for (auto step : state) {
            cancel.check();
        }
    });
}

void checkWithHeartbeat(benchmark::State& state) {
    core::Heartbeat heartbeat(std::chrono::hours(1));
    heartbeat.ping();
    core::CancelableOperation operation([&] { heartbeat.check(); });
    operation.run([&](core::ICancel& cancel) {
        for (auto step : state) {
            cancel.check();
        }
    });
}

void clockUnderMutex(benchmark::State& state) {
    std::mutex mutex;
    for (auto step : state) {
        const std::lock_guard lock(mutex);
        benchmark::DoNotOptimize(std::chrono::steady_clock::now());
    }
}

BENCHMARK(checkAlone);
BENCHMARK(checkWithHeartbeat);
BENCHMARK(clockUnderMutex);

/// The usual table, and then the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            nanoseconds[run.run_name.function_name] =
                1e9 * run.cpu_accumulated_time / static_cast<double>(run.iterations);
        }
    }

    void printRatio(const std::string& peerName) const {
        const auto own = nanoseconds.find("checkWithHeartbeat");
        const auto peer = nanoseconds.find(peerName);
        if (own != nanoseconds.end() && peer != nanoseconds.end()) {
            std::printf("checkWithHeartbeat: %.1f ns, %s %.1f ns, ratio %.2f\n", own->second,
                        peerName.c_str(), peer->second, own->second / peer->second);
        }
    }

private:
    std::map<std::string, double> nanoseconds;
};

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    benchmark::Initialize(&argumentCount, arguments);
    agent::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio("checkAlone");
    reporter.printRatio("clockUnderMutex");
    benchmark::Shutdown();
}
