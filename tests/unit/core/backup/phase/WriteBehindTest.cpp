#include "core/backup/phase/WriteBehind.h"

#include "core/backup/BackupStatusHandler.h"
#include "core/backup/phase/CopyChunkRanges.h"
#include "info/log/LogGate.h"
#include "support/CountedCancel.h"
#include "support/FakeTransport.h"
#include "support/FixedRanges.h"
#include "support/MemoryVolume.h"
#include "support/Messages.h"
#include "support/NoMoreThreads.h"
#include "support/RecordingLogger.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace agent::core::backup::phase {
namespace {

using info::level::debug;
using info::level::info;
using test::eventually;
using test::messageOf;
using testing::ElementsAre;
using Line = test::RecordingLogger::Line;
using Offsets = std::vector<std::int64_t>;

Chunk chunkAt(std::int64_t offset) {
    return {offset, nullptr, 1};
}

/// Takes chunks, each when the test lets it.
class Gate {
public:
    void pass(const Chunk& chunk) {
        ++arrived;
        eventually([&] { return arrived <= allowed; });
        passed.push_back(chunk.offset);
        if (chunk.offset == failing) {
            throw std::runtime_error("can't be written");
        }
    }

    std::atomic<int> arrived = 0;
    std::atomic<int> allowed = 1000;
    std::int64_t failing = -1;
    Offsets passed; ///< read it only when nothing is being written
};

class WriteBehindTest : public testing::Test {
protected:
    Gate gate;
    WriteBehind writing{[this](const Chunk& chunk) { gate.pass(chunk); }};
};

TEST_F(WriteBehindTest, AChunkIsWrittenWhileTheCallerGoesOn) {
    gate.allowed = 0;
    writing.begin(chunkAt(7));
    EXPECT_TRUE(eventually([&] { return gate.arrived == 1; }));
    gate.allowed = 1;
    writing.waitOrThrow();
    EXPECT_EQ(gate.passed, Offsets{7});
}

TEST_F(WriteBehindTest, ChunksAreWrittenOneAfterTheOther) {
    for (const std::int64_t offset : {3, 1, 2}) {
        writing.begin(chunkAt(offset));
    }
    EXPECT_TRUE(writing.waitUntilWritten());
    EXPECT_EQ(gate.passed, (Offsets{3, 1, 2}));
}

TEST_F(WriteBehindTest, AFailureEndsWithTheNextCallAndIsThrownOnce) {
    gate.failing = 1;
    writing.begin(chunkAt(1));
    EXPECT_EQ(messageOf<std::runtime_error>([&] { writing.begin(chunkAt(2)); }), "can't be written");
    writing.waitOrThrow();
    EXPECT_EQ(gate.passed, Offsets{1}) << "and nothing was begun";
}

TEST_F(WriteBehindTest, WhoOnlyAsksLeavesTheFailureToTheNext) {
    gate.failing = 1;
    writing.begin(chunkAt(1));
    EXPECT_FALSE(writing.waitUntilWritten());
    EXPECT_FALSE(writing.waitUntilWritten());
    EXPECT_THROW(writing.waitOrThrow(), std::runtime_error);
    EXPECT_TRUE(writing.waitUntilWritten());
}

TEST_F(WriteBehindTest, TheEndWaitsForWhatIsUnderWay) {
    Offsets written;
    {
        WriteBehind ending([&](const Chunk& chunk) { written.push_back(chunk.offset); });
        ending.begin(chunkAt(1));
    }
    EXPECT_EQ(written, Offsets{1});
}

TEST_F(WriteBehindTest, WithoutAThreadTheCallerWrites) {
    const test::NoMoreThreads none;
    gate.failing = 2;
    writing.begin(chunkAt(1));
    EXPECT_EQ(gate.passed, Offsets{1});
    EXPECT_THROW(writing.begin(chunkAt(2)), std::runtime_error);
    writing.waitOrThrow();
    EXPECT_TRUE(writing.waitUntilWritten());
}

TEST_F(WriteBehindTest, SignalsOfTheProcessAreLeftToOthers) {
    sigset_t of{};
    WriteBehind signalled([&](const Chunk&) { pthread_sigmask(SIG_SETMASK, nullptr, &of); });
    signalled.begin(chunkAt(1));
    signalled.waitOrThrow();
    EXPECT_EQ(sigismember(&of, SIGALRM), 1);
    EXPECT_EQ(sigismember(&of, SIGSEGV), 0);
    pthread_sigmask(SIG_SETMASK, nullptr, &of);
    EXPECT_EQ(sigismember(&of, SIGALRM), 0);
}

// --- a copy that reads while it writes

constexpr std::uint32_t blockSize = 512;

/// Counts its reads and logs each at the given level.
class LoggedVolume : public test::MemoryVolume {
public:
    LoggedVolume(info::Logger& logger, int level)
        : MemoryVolume(std::uint64_t{16} * blockSize), logger(logger), level(level) {}

    std::int64_t read(void* buffer, std::size_t length) override {
        const std::int64_t result = MemoryVolume::read(buffer, length);
        logger.log(level, "read %d", ++reads);
        return result;
    }

    std::atomic<int> reads = 0;

private:
    info::Logger& logger;
    int level;
};

/// Each write waits until the next chunk has been read, but at most for `patience`.
class WaitingTransport : public test::FakeTransport {
public:
    WaitingTransport(info::Logger& logger, LoggedVolume& volume)
        : FakeTransport(Image(std::size_t{16} * blockSize)), logger(logger), volume(volume) {}

    std::int64_t write(const void* data, std::uint64_t length) override {
        ++calls;
        const auto deadline = std::chrono::steady_clock::now() + patience;
        while (volume.reads <= calls && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        sawNext = sawNext || volume.reads > calls;
        logger.log(info, "written %d", calls);
        return calls == failing ? -1 : FakeTransport::write(data, length);
    }

    int calls = 0;
    int failing = 0;
    bool sawNext = false; ///< the next chunk was read before this one was written
    std::chrono::milliseconds patience{50};

private:
    info::Logger& logger;
    LoggedVolume& volume;
};

class OverlappingCopy {
public:
    explicit OverlappingCopy(info::Logger& logger, int level) : logger(logger), volume(logger, level) {
        target->connect(false);
    }

    void run() {
        CopyChunkRanges(logger, "volume", volume, writer, provider, blockSize, buffer, status, cancel)
            .execute();
    }

    info::Logger& logger;
    LoggedVolume volume;
    std::shared_ptr<WaitingTransport> target = std::make_shared<WaitingTransport>(logger, volume);
    std::shared_ptr<ITransport> writer = target;
    std::unique_ptr<block::IBlockRangeProvider> provider =
        std::make_unique<test::FixedRanges>(std::vector<BlockRange>{{0, 1}, {3, 1}, {5, 1}});
    AlignedBuffer buffer{blockSize, blockSize};
    BackupStatusHandler status{logger, {"volume"}};
    test::CountedCancel cancel;
};

TEST(OverlappingCopyTest, TheNextChunkIsReadWhileOneIsWritten) {
    info::Logger quiet([](const std::string&, int, info::LogTime) {},
                       [](int level) { return level <= info; });
    OverlappingCopy copy(quiet, debug);
    copy.target->patience = std::chrono::seconds(30);
    std::thread lastWrite([&] { // has no next chunk to wait for
        eventually([&] { return copy.volume.reads == 3; });
        ++copy.volume.reads;
    });
    copy.run();
    lastWrite.join();
    EXPECT_TRUE(copy.target->sawNext);
    EXPECT_EQ(copy.target->written.size(), 3U);
}

TEST(OverlappingCopyTest, TheLogHasTheOrderOfTheChunks) {
    test::RecordingLogger record;
    OverlappingCopy copy(record.logger, info);
    copy.run();
    EXPECT_THAT(record.lines(),
                ElementsAre(Line{info, "read 1"}, Line{info, "written 1"}, Line{info, "read 2"},
                            Line{info, "written 2"}, Line{info, "read 3"}, Line{info, "written 3"},
                            Line{debug, "Total bytes copied is 1536 (1.5 KiB)"}));
}

TEST(OverlappingCopyTest, NothingIsSaidOfAChunkBehindOneThatCouldNotBeWritten) {
    test::RecordingLogger record;
    OverlappingCopy copy(record.logger, info);
    copy.target->failing = 1;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { copy.run(); }), "Failed to write the chunk!");
    EXPECT_THAT(record.texts(info), ElementsAre("read 1", "written 1"));
}

TEST(OverlappingCopyTest, AWriteThatFailsComesBeforeACancel) {
    test::RecordingLogger record;
    OverlappingCopy copy(record.logger, info);
    copy.target->failing = 1;
    copy.cancel = test::CountedCancel(1);
    EXPECT_EQ(messageOf<std::runtime_error>([&] { copy.run(); }), "Failed to write the chunk!");
}

} // namespace
} // namespace agent::core::backup::phase
