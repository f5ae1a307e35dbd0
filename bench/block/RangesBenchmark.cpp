#include "bench/support/Program.h"
#include "core/block/BitRangeFinder.h"
#include "core/block/BlockRangeProviderFactory.h"
#include "support/FixedRanges.h"
#include "support/ReferenceRanges.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

/// Measures how long it takes to choose the blocks of a volume.
///
/// findRanges over the 40 MiB bitmap of one fetch, for different contents: compared with copying the same
/// bytes, which is as fast as memory gets, and with testing every bit. The bitmap "aged" is a real one, made
/// by aged_ext4.py; its path is the program's argument, and it is repeated up to the size of a fetch.
///
/// A walk over 10 million ranges, through merge and cut, as in the copy of a volume but without the copying.
namespace agent::bench {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr std::size_t bitmapBytes = std::size_t{40} * 1024 * 1024;
constexpr std::size_t sliceBytes = std::size_t{32} * 1024;
constexpr std::uint64_t rangesToWalk = 10'000'000;

Bytes uniform(std::uint8_t byte) {
    return Bytes(bitmapBytes, byte);
}

Bytes randomBits() {
    std::mt19937_64 random(1);
    Bytes bitmap(bitmapBytes);
    std::generate(bitmap.begin(), bitmap.end(), [&] { return static_cast<std::uint8_t>(random()); });
    return bitmap;
}

Bytes repeated(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    const Bytes real{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    Bytes bitmap;
    while (!real.empty() && bitmap.size() < bitmapBytes) {
        const std::size_t part = std::min(real.size(), bitmapBytes - bitmap.size());
        bitmap.insert(bitmap.end(), real.begin(), real.begin() + static_cast<std::ptrdiff_t>(part));
    }
    return bitmap;
}

/// Calls `find` for slices of the bitmap, as a backup searches a fetched bitmap. The ranges of random bits
/// would take gigabytes altogether, and the benchmark would measure the paging.
template <typename Find>
void search(benchmark::State& state, const Bytes& bitmap, const Find& find) {
    if (bitmap.empty()) {
        state.SkipWithError("no bitmap has been given");
    }
    std::size_t ranges = 0;
    for (auto step : state) {
        ranges = 0;
        for (std::size_t slice = 0; slice < bitmap.size(); slice += sliceBytes) {
            ranges += find(bitmap.data() + slice, sliceBytes * 8).size();
        }
        benchmark::DoNotOptimize(ranges);
    }
    state.counters["ranges"] = static_cast<double>(ranges);
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bitmapBytes));
}

void searchClear(benchmark::State& state, const Bytes& bitmap, bool msbFirst) {
    const BitRangeFinder finder(false, msbFirst);
    search(state, bitmap,
           [&](const std::uint8_t* bits, std::uint64_t count) { return finder.findRanges(bits, count); });
}

void searchPlainly(benchmark::State& state, const Bytes& bitmap) {
    search(state, bitmap, [&](const std::uint8_t* bits, std::uint64_t count) {
        return test::referenceBitRanges(bits, count, false, false);
    });
}

void copy(benchmark::State& state) {
    const Bytes bitmap = uniform(1);
    Bytes target(bitmapBytes);
    for (auto step : state) {
        std::memcpy(target.data(), bitmap.data(), bitmap.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bitmapBytes));
}

/// Every second pair of blocks of a volume, as an excluder.
std::unique_ptr<core::block::IBlockRangeProvider> everySecondPair() {
    std::vector<BlockRange> ranges;
    ranges.reserve(rangesToWalk);
    for (std::uint64_t index = 0; index < rangesToWalk; ++index) {
        ranges.push_back({4 * index, 2});
    }
    return std::make_unique<test::FixedRanges>(std::move(ranges));
}

void walk(benchmark::State& state) {
    info::Logger logger([](const std::string&, int, info::LogTime) {},
                        [](int level) { return level < info::level::debug; });
    const core::block::BlockRangeProviderFactory factory(logger, nullptr);
    std::vector<std::unique_ptr<core::block::IBlockRangeProvider>> excluders;
    excluders.push_back(everySecondPair());
    const auto chunks = factory.createChunkProvider(
        factory.createIncludedProvider(std::move(excluders), rangesToWalk * 4), 1024);
    for (auto step : state) {
        std::uint64_t count = 0;
        const core::block::BlockRangeIterator end = chunks->end();
        for (core::block::BlockRangeIterator chunk = chunks->begin(); chunk != end; ++chunk) {
            count += chunk->empty() ? 0 : 1;
        }
        if (count != rangesToWalk) {
            state.SkipWithError("not all ranges have come");
        }
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(rangesToWalk));
}

void registerBenchmarks(const std::string& agedBitmap) {
    benchmark::RegisterBenchmark("memcpy", copy);
    benchmark::RegisterBenchmark("allFree", [](auto& state) { searchClear(state, uniform(0), false); });
    benchmark::RegisterBenchmark("allUsed", [](auto& state) { searchClear(state, uniform(0xff), false); });
    benchmark::RegisterBenchmark("aged",
                                 [=](auto& state) { searchClear(state, repeated(agedBitmap), false); });
    benchmark::RegisterBenchmark("agedMsbFirst",
                                 [=](auto& state) { searchClear(state, repeated(agedBitmap), true); });
    benchmark::RegisterBenchmark("random", [](auto& state) { searchClear(state, randomBits(), false); });
    benchmark::RegisterBenchmark("randomPlain", [](auto& state) { searchPlainly(state, randomBits()); });
    benchmark::RegisterBenchmark("walk", walk)->Unit(benchmark::kMillisecond);
}

void printRatio(const TimingReporter& reporter, const char* name, const char* peerName, double wanted) {
    reporter.compare(name, peerName, [&](double own, double peer) {
        std::printf("%s: %.2f times as fast as %s, wanted %.2f\n", name, peer / own, peerName, wanted);
    });
}

void printBound(const TimingReporter& reporter, const char* name, double mostSeconds) {
    reporter.show(name,
                  [&](double own) { std::printf("%s: %.3f s, wanted %.3f s\n", name, own, mostSeconds); });
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    agent::bench::Program program(argumentCount, arguments, agent::bench::TimingReporter::Clock::processor);
    agent::bench::registerBenchmarks(argumentCount > 1 ? arguments[1] : "");
    const agent::bench::TimingReporter& reporter = program.run();
    agent::bench::printRatio(reporter, "allFree", "memcpy", 0.5);
    agent::bench::printRatio(reporter, "allUsed", "memcpy", 0.5);
    agent::bench::printRatio(reporter, "random", "randomPlain", 3);
    agent::bench::printBound(reporter, "aged", static_cast<double>(agent::bench::bitmapBytes) / 2e9);
    agent::bench::printBound(reporter, "agedMsbFirst", static_cast<double>(agent::bench::bitmapBytes) / 2e9);
    agent::bench::printBound(reporter, "walk", 1);
}
