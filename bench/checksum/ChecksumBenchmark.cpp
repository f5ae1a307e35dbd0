#include "bench/support/Program.h"
#include "core/checksum/BufferChecksumGeneratorGCryptCRC32.h"
#include "core/checksum/BufferChecksumGeneratorLibCRC32c.h"

#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

/// What the checksum of a remote image's first 10 MiB costs in processor time: CRC-32C beside the same by
/// the processor's own instruction, beside the CRC-32 of libgcrypt, and beside copying the bytes, which is as
/// fast as memory gets.
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

#ifdef __x86_64__
/// One instruction after the other, each of which waits for the one before.
__attribute__((target("sse4.2"))) std::uint32_t instructionSum(const std::vector<unsigned char>& bytes) {
    static_assert(regionBytes % sizeof(std::uint64_t) == 0);
    std::uint64_t sum = 0xffffffff;
    for (std::size_t at = 0; at < bytes.size(); at += sizeof(std::uint64_t)) {
        std::uint64_t word = 0;
        std::memcpy(&word, &bytes[at], sizeof word);
        sum = __builtin_ia32_crc32di(sum, word);
    }
    return ~static_cast<std::uint32_t>(sum);
}

bool hasInstruction() {
    return __builtin_cpu_supports("sse4.2") != 0;
}
#else
std::uint32_t instructionSum(const std::vector<unsigned char>& /*bytes*/) {
    return 0;
}

bool hasInstruction() {
    return false;
}
#endif

void sumUpByInstruction(benchmark::State& state) {
    if (!hasInstruction()) {
        state.SkipWithError("the processor has no such instruction");
        return;
    }
    const std::vector<unsigned char> bytes = region();
    std::uint32_t expected = 0;
    BufferChecksumGeneratorLibCRC32c().generate(bytes.data(), bytes.size(), expected);
    if (instructionSum(bytes) != expected) {
        state.SkipWithError("another sum");
        return;
    }
    for (auto step : state) {
        benchmark::DoNotOptimize(instructionSum(bytes));
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(regionBytes));
}

BENCHMARK(sumUp<BufferChecksumGeneratorLibCRC32c>)->Name("crc32c");
BENCHMARK(sumUpByInstruction)->Name("instruction");
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
    agent::bench::printRatio(reporter, "instruction");
    agent::bench::printRatio(reporter, "gcryptCRC32");
    agent::bench::printRatio(reporter, "memcpy");
}
