#include "core/block/BlockRangeProviderFactory.h"
#include "info/BackupableVolume.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <memory>
#include <sys/resource.h>
#include <utility>
#include <vector>

/// Measures the peak memory of a walk over all ranges of a volume, for two bitmaps: 16 TiB in runs like those
/// of an aged file system, and 2.5 TiB of which every second block is free, which is the worst case.
namespace agent::bench {
namespace {

using Fill = std::function<std::uint8_t(std::uint64_t byte)>;

constexpr std::uint64_t tebibyteBlocks = std::uint64_t{1} << 28U; ///< of 4096 bytes
constexpr long wantedMebibytes = 80;

/// A bitmap that is generated when it is fetched.
class SyntheticBitmap : public core::fs::IBlockBitmapChunkProvider {
public:
    SyntheticBitmap(std::uint64_t blocks, Fill fill) : blocks(blocks), fill(std::move(fill)) {}

    std::int64_t getBitmapChunk(std::uint64_t startBlock, std::uint8_t* buffer,
                                std::size_t bufferBytes) override {
        const std::uint64_t bytes = std::min<std::uint64_t>(bufferBytes, (blocks - startBlock) / 8);
        for (std::uint64_t byte = 0; byte < bytes; ++byte) {
            buffer[byte] = fill(startBlock / 8 + byte);
        }
        return static_cast<std::int64_t>(bytes * 8);
    }

private:
    std::uint64_t blocks;
    Fill fill;
};

std::uint64_t walk(std::uint64_t blocks, const Fill& fill) {
    info::VolumeDescription description;
    description.blockSize = 4096;
    description.blockCount = blocks;
    description.sectorSize = 512;
    info::Logger logger({});
    const core::block::BlockRangeProviderFactory factory(
        logger, std::make_shared<info::BackupableVolume>(description));
    std::vector<std::unique_ptr<core::block::IBlockRangeProvider>> excluders;
    excluders.push_back(factory.createUnusedExcluder(std::make_unique<SyntheticBitmap>(blocks, fill), false));
    const auto chunks =
        factory.createChunkProvider(factory.createIncludedProvider(std::move(excluders), blocks), 1024);
    std::uint64_t count = 0;
    for (const BlockRange& chunk : *chunks) {
        count += chunk.empty() ? 0 : 1;
    }
    return count;
}

long peakMebibytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss / 1024;
}

void report(const char* name, std::uint64_t blocks, const Fill& fill) {
    const auto start = std::chrono::steady_clock::now();
    const std::uint64_t chunks = walk(blocks, fill);
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
    std::printf("%s: %lu chunks in %.1f s, peak so far %ld MiB, wanted %ld MiB\n", name, chunks,
                seconds.count(), peakMebibytes(), wantedMebibytes);
}

/// Mostly long runs, and a byte of scattered blocks now and then.
std::uint8_t agedByte(std::uint64_t byte) {
    const std::uint64_t mixed = byte / 13 * 0x9e3779b97f4a7c15;
    const bool scattered = byte % 13 == 0 && (mixed >> 60U) == 0;
    return static_cast<std::uint8_t>(scattered ? mixed >> 40U : (byte >> 9U) % 2 * 0xff);
}

} // namespace
} // namespace agent::bench

int main() {
    using agent::bench::tebibyteBlocks;
    agent::bench::report("16 TiB, aged", 16 * tebibyteBlocks, agent::bench::agedByte);
    agent::bench::report("2.5 TiB, every second block", 5 * tebibyteBlocks / 2,
                         [](std::uint64_t) { return std::uint8_t{0x55}; });
}
