#include "bench/support/Program.h"
#include "core/Heartbeat.h"
#include "core/operation/CancelableOperation.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

/// Measures one cancellation point; a copy has one for each piece that it sends. With a watchdog that is fed,
/// and without one, compared with the least that a watchdog can do: read the clock under a mutex.
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

void printRatio(const TimingReporter& reporter, const char* peerName) {
    reporter.compare("checkWithHeartbeat", peerName, [peerName](double own, double peer) {
        std::printf("checkWithHeartbeat: %.1f ns, %s %.1f ns, ratio %.2f\n", 1e9 * own, peerName, 1e9 * peer,
                    own / peer);
    });
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    agent::bench::Program program(argumentCount, arguments, agent::bench::TimingReporter::Clock::processor);
    const agent::bench::TimingReporter& reporter = program.run();
    agent::bench::printRatio(reporter, "checkAlone");
    agent::bench::printRatio(reporter, "clockUnderMutex");
}
