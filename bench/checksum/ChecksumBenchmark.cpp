#include "bench/support/Program.h"
#include "core/checksum/BufferChecksumGeneratorGCryptCRC32.h"
#include "core/checksum/BufferChecksumGeneratorLibCRC32c.h"
#include "os/Crc32c.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <span>
#include <vector>

/// Measures the processor time of the checksum of a remote image's first 10 MiB: CRC-32C, by the processor's
/// own instruction if it has one, compared with CRC-32C by tables, with libgcrypt's CRC-32, and with copying
/// the bytes, which is as fast as memory gets.
namespace agent::bench {
namespace {

constexpr std::size_t regionBytes = std::size_t{10} * 1024 * 1024;

std::vector<unsigned char> region() {
    std::mt19937 random(1);
    std::vector<unsigned char> bytes(regionBytes);
    for (unsigned char& byte : bytes) {
        byte = static_cast<unsigned char>(random());
    }
    return bytes;
}

template <typename Generator>
void sumUp(benchmark::State& state) {
    const std::vector<unsigned char> bytes = region();
    const Generator generator;
    std::uint32_t sum = 0;
    for (auto step : state) {
        generator.generate(bytes.data(), bytes.size(), sum);
        benchmark::DoNotOptimize(sum);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(regionBytes));
}

void copy(benchmark::State& state) {
    const std::vector<unsigned char> bytes = region();
    std::vector<unsigned char> target(regionBytes);
    for (auto step : state) {
        std::memcpy(target.data(), bytes.data(), bytes.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(regionBytes));
}

void sumUpByTables(benchmark::State& state) {
    const std::vector<unsigned char> bytes = region();
    for (auto step : state) {
        benchmark::DoNotOptimize(os::crc32cByTables(std::as_bytes(std::span(bytes))));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(regionBytes));
}

BENCHMARK(sumUp<BufferChecksumGeneratorLibCRC32c>)->Name("crc32c");
BENCHMARK(sumUpByTables)->Name("tables");
BENCHMARK(sumUp<BufferChecksumGeneratorGCryptCRC32>)->Name("gcryptCRC32");
BENCHMARK(copy)->Name("memcpy");

void printRatio(const TimingReporter& reporter, const char* peerName) {
    reporter.compare("crc32c", peerName, [peerName](double own, double peer) {
        const double gigabytes = static_cast<double>(regionBytes) / 1e9;
        std::printf("crc32c: %.2f GB/s, %.2f times as fast as %s at %.2f GB/s\n", gigabytes / own, peer / own,
                    peerName, gigabytes / peer);
    });
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    agent::bench::Program program(argumentCount, arguments, agent::bench::TimingReporter::Clock::processor);
    const agent::bench::TimingReporter& reporter = program.run();
    agent::bench::printRatio(reporter, "tables");
    agent::bench::printRatio(reporter, "gcryptCRC32");
    agent::bench::printRatio(reporter, "memcpy");
}
