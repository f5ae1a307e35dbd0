#include "core/backup/phase/ReadAhead.h"

#include "info/log/LogTurn.h"
#include "support/FixedRanges.h"
#include "support/MemoryVolume.h"
#include "support/NoMoreThreads.h"
#include "support/RecordingLogger.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>

namespace agent::core::backup::phase {
namespace {

using info::level::debug;
using info::level::info;
using test::eventually;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;
using Request = test::MemoryVolume::Request;

constexpr std::uint32_t blockSize = 4096;

/// Counts its reads, and logs each if it is told to.
class WatchedVolume : public test::MemoryVolume {
public:
    explicit WatchedVolume(info::Logger& logger)
        : MemoryVolume(std::uint64_t{16} * blockSize), logger(logger) {
        for (std::uint64_t block = 0; block < 16; ++block) {
            at(block * blockSize) = static_cast<std::uint8_t>(block + 1);
        }
    }

    std::int64_t read(void* buffer, std::size_t length) override {
        const std::int64_t result = MemoryVolume::read(buffer, length);
        if (loggedLevel) {
            logger.log(*loggedLevel, "read %d", reads.load());
        }
        sigset_t blocked;
        pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
        blocksSignals = sigismember(&blocked, SIGALRM) == 1 && sigismember(&blocked, SIGSEGV) == 0;
        ++reads;
        return result;
    }

    std::atomic<int> reads = 0;
    std::atomic<bool> blocksSignals = false;
    std::optional<int> loggedLevel;

private:
    info::Logger& logger;
};

class ReadAheadTest : public testing::Test {
protected:
    /// Chunks of one block each.
    void copy(std::vector<BlockRange> ranges, std::size_t failAt = test::FixedRanges::never) {
        provider.emplace(std::move(ranges), failAt);
        reading.emplace(logger, volume, *provider, blockSize);
        ahead.emplace(*reading, first, second);
    }

    /// The first byte of the next chunk.
    int next() {
        const Chunk chunk = ahead->next();
        EXPECT_EQ(chunk.kind, Chunk::Kind::data);
        return static_cast<int>(chunk.bytes[0]);
    }

    test::RecordingLogger record;
    info::Logger& logger = record.logger;
    WatchedVolume volume{logger};
    std::optional<test::FixedRanges> provider;
    AlignedBuffer first{blockSize, blockSize};
    AlignedBuffer second{blockSize, blockSize};
    std::optional<ChunkReader> reading;
    std::optional<ReadAhead> ahead;
};

TEST_F(ReadAheadTest, TheNextChunkIsReadMeanwhileAndNoOther) {
    copy({{0, 1}, {3, 1}, {5, 1}, {7, 1}});
    const Chunk chunk = ahead->next();
    EXPECT_TRUE(eventually([&] { return volume.reads == 2; }));
    EXPECT_EQ(static_cast<int>(chunk.bytes[0]), 1);
    EXPECT_EQ(next(), 4);
    EXPECT_TRUE(eventually([&] { return volume.reads == 3; }));
    EXPECT_EQ(next(), 6);
    EXPECT_EQ(next(), 8);
    EXPECT_EQ(ahead->next().kind, Chunk::Kind::end);
    ahead.reset();
    EXPECT_THAT(volume.requests,
                ElementsAre(Request{0, blockSize}, Request{std::uint64_t{3} * blockSize, blockSize},
                            Request{std::uint64_t{5} * blockSize, blockSize},
                            Request{std::uint64_t{7} * blockSize, blockSize}));
}

TEST_F(ReadAheadTest, NothingIsReadBeforeTheFirstIsAskedFor) {
    copy({{0, 1}, {3, 1}});
    ahead.reset();
    EXPECT_THAT(volume.requests, IsEmpty());
}

TEST_F(ReadAheadTest, AFailureComesBehindTheChunksBeforeIt) {
    volume.failReads(std::uint64_t{3} * blockSize, std::uint64_t{4} * blockSize);
    copy({{0, 1}, {3, 1}, {5, 1}});
    EXPECT_EQ(next(), 1);
    const Chunk failed = ahead->next();
    ASSERT_EQ(failed.kind, Chunk::Kind::failed);
    EXPECT_THROW(std::rethrow_exception(failed.failure), std::runtime_error);
    ahead.reset();
    EXPECT_EQ(volume.requests.size(), 2U) << "and nothing is read behind it";
}

TEST_F(ReadAheadTest, ThereMayBeNoMoreRanges) {
    copy({{0, 1}, {3, 1}}, 1);
    EXPECT_EQ(next(), 1);
    const Chunk failed = ahead->next();
    ASSERT_EQ(failed.kind, Chunk::Kind::failed);
    EXPECT_THROW(std::rethrow_exception(failed.failure), int);
}

TEST_F(ReadAheadTest, WhatIsLoggedComesWhenTheChunkIsAskedFor) {
    volume.loggedLevel = info;
    copy({{0, 1}, {3, 1}, {5, 1}});
    EXPECT_EQ(next(), 1);
    logger.log(info, "the first chunk is written");
    EXPECT_EQ(next(), 4);
    logger.log(info, "the second chunk is written");
    EXPECT_EQ(next(), 6);
    EXPECT_THAT(record.lines(), ElementsAre(Line{info, "read 0"}, Line{info, "the first chunk is written"},
                                            Line{info, "read 1"}, Line{info, "the second chunk is written"},
                                            Line{info, "read 2"}));
}

TEST_F(ReadAheadTest, WhatIsLoggedAboutAChunkThatNobodyAsksForIsDropped) {
    volume.loggedLevel = info;
    copy({{0, 1}, {3, 1}});
    EXPECT_EQ(next(), 1);
    ahead.reset();
    EXPECT_THAT(record.lines(), ElementsAre(Line{info, "read 0"}));
}

TEST_F(ReadAheadTest, ALineThatNobodyGetsIsNotWaitedWith) {
    info::Logger coarse([](const std::string&, int, info::LogTime) {},
                        [](int level) { return level <= info; });
    WatchedVolume quiet(coarse);
    quiet.loggedLevel = debug;
    const test::FixedRanges ranges({{0, 1}, {3, 1}});
    ChunkReader chunks(coarse, quiet, ranges, blockSize);
    ReadAhead reader(chunks, first, second);
    reader.next();
    EXPECT_TRUE(eventually([&] { return quiet.reads == 2; }));
}

TEST_F(ReadAheadTest, SignalsOfTheProcessAreLeftToOthers) {
    copy({{0, 1}});
    EXPECT_EQ(next(), 1);
    EXPECT_TRUE(volume.blocksSignals);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_EQ(sigismember(&blocked, SIGALRM), 0);
}

TEST_F(ReadAheadTest, WithoutAThreadEachChunkIsReadWhenItIsAskedFor) {
    const test::NoMoreThreads none;
    copy({{0, 1}, {3, 1}});
    EXPECT_EQ(next(), 1);
    EXPECT_EQ(volume.reads, 1);
    EXPECT_EQ(next(), 4);
    EXPECT_EQ(ahead->next().kind, Chunk::Kind::end);
}

} // namespace
} // namespace agent::core::backup::phase
