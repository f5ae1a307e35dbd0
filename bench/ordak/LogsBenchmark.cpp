#include "bench/support/Program.h"
#include "common/Directory.h"
#include "info/log/LoggingStack.h"
#include "ordak/Logs.h"
#include "os/FileDescriptor.h"

#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <fcntl.h>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

/// Measures a query of the log: GET /event over seven days of files that total 200 MiB, compared with only
/// reading the same files. Run it in lab/namespace, where the log directory is private.
namespace agent::bench {
namespace {

constexpr int days = 7;
constexpr std::size_t totalBytes = 200UL * 1024 * 1024;

std::vector<std::string> paths;

std::string pathOf(info::LogTime day) {
    return info::FilePrinter::logDirectory() / info::FilePrinter::logFileName(day);
}

/// Writes lines like those of a backup at level debug.
void writeDay(info::IDecorator& decorator, info::LogTime day) {
    paths.push_back(pathOf(day));
    std::ofstream file(paths.back(), std::ios::binary);
    for (std::size_t written = 0, number = 0; written < totalBytes / days; ++number) {
        const std::string text = "Copied blocks of volume 6f0c9f2e-57a5-4a0b-8a1c-000000000001, range " +
                                 std::to_string(number) + "\n";
        const std::string line =
            decorator.decorate(text, static_cast<int>(number % 5), day + std::chrono::milliseconds(number));
        file << line;
        written += line.size();
    }
}

void queryLogs(benchmark::State& state) {
    info::LoggingStack stack;
    info::Logger silent{info::PrinterFunction()};
    ordak::Logs logs(silent, stack.decorator());
    ordak::APIExtendedData request;
    request.args = {{"lines", "10000"}, {"severity", "1"}};
    for (auto step : state) {
        benchmark::DoNotOptimize(logs("", request));
    }
}

void queryLogsRead(benchmark::State& state) {
    std::array<char, std::size_t{128} * 1024> buffer{};
    for (auto step : state) {
        for (const std::string& path : paths) {
            const os::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
            while (::read(file.get(), buffer.data(), buffer.size()) > 0) {
                benchmark::DoNotOptimize(buffer);
            }
        }
    }
}

BENCHMARK(queryLogs)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(queryLogsRead)->UseRealTime()->Unit(benchmark::kMillisecond);

void printRatio(const TimingReporter& reporter) {
    struct ::rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    reporter.compare("queryLogs", "queryLogsRead", [&usage](double own, double peer) {
        std::printf("query %.0f ms, plain reading %.0f ms, ratio %.1f, peak memory %ld MiB\n", own * 1000,
                    peer * 1000, own / peer, usage.ru_maxrss / 1024);
    });
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    agent::bench::Program program(argumentCount, arguments);
    agent::info::LoggingStack stack;
    agent::dir::make(agent::info::FilePrinter::logDirectory());
    for (int day = 0; day < agent::bench::days; ++day) {
        agent::bench::writeDay(stack.decorator(),
                               std::chrono::system_clock::now() - std::chrono::hours(24 * day));
    }
    agent::bench::printRatio(program.run());
    for (const std::string& path : agent::bench::paths) {
        ::unlink(path.c_str());
    }
}
