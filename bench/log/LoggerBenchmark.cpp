#include "common/Directory.h"
#include "info/log/LoggingStack.h"
#include "os/FileDescriptor.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <unistd.h>

/// Measures a log message on its way through the whole stack into the file, which is opened for each message:
/// compared with opening the file, appending bytes of the same length and closing it, one thread at a time
/// like the logger. Run it in lab/namespace, where the agent's log directory is private.
namespace agent::bench {
namespace {

constexpr const char* text = "Finished execution of the Validate Remote Targets phase.";
/// A line of the file: the text with its date and tag.
constexpr std::string_view line =
    "2024-01-01 00:00:00.000 [INFO:]     Finished execution of the Validate Remote Targets phase.\n";

info::LoggingStack& stack() {
    static info::LoggingStack shared; // shared by all threads of a benchmark
    return shared;
}

void message(benchmark::State& state) {
    info::LoggingStack& logging = stack();
    for (auto step : state) {
        logging.logger.log(info::level::info, "%s", text);
    }
    state.SetItemsProcessed(state.iterations());
}

void append(benchmark::State& state) {
    static std::mutex mutex;
    const std::string path = info::FilePrinter::logDirectory() / "append.log";
    for (auto step : state) {
        const std::lock_guard lock(mutex);
        const os::FileDescriptor file(::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0640));
        benchmark::DoNotOptimize(::write(file.get(), line.data(), line.size()));
    }
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(message)->UseRealTime()->Threads(1)->Threads(8);
BENCHMARK(append)->UseRealTime()->Threads(1)->Threads(8);

/// Prints the usual table, and then the ratios, to standard error: standard output is the log's.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            aSecond[{run.run_name.function_name, run.threads}] = run.counters.at("items_per_second");
        }
    }

    void printRatio(std::int64_t threads) const {
        const auto own = aSecond.find({"message", threads});
        const auto peer = aSecond.find({"append", threads});
        if (own != aSecond.end() && peer != aSecond.end()) {
            std::fprintf(stderr, "%ld threads: %.0f messages a second, plain appends %.0f, ratio %.2f\n",
                         static_cast<long>(threads), own->second, peer->second, own->second / peer->second);
        }
    }

private:
    std::map<std::pair<std::string, std::int64_t>, double> aSecond;
};

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    benchmark::Initialize(&argumentCount, arguments);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        return EXIT_FAILURE;
    }
    agent::dir::make(agent::info::FilePrinter::logDirectory());
    agent::bench::RatioReporter reporter;
    reporter.SetOutputStream(&std::cerr);
    reporter.SetErrorStream(&std::cerr);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio(1);
    reporter.printRatio(8);
    benchmark::Shutdown();
}
