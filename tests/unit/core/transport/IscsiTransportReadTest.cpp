#include "unit/core/transport/IscsiTransportFixture.h"

#include <limits>
#include <thread>

namespace agent::core {
namespace {

using testing::Each;

// --- seek

TEST_F(IscsiTransportTest, SeekMovesWithoutTheNetwork) {
    connect();
    EXPECT_EQ(transport->seek(1000, absolute), 1000);
    EXPECT_EQ(transport->seek(24, relative), 1024);
    EXPECT_EQ(transport->seek(-1024, relative), 0);
    EXPECT_THAT(iscsi.calls, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiTransportTest, SeekReachesTheSizeAndNotAByteMore) {
    connect();
    EXPECT_EQ(transport->seek(diskBytes, absolute), diskBytes);
    errno = 0;
    EXPECT_EQ(transport->seek(diskBytes + 1, absolute), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(transport->seek(1, relative), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(position(), diskBytes);
}

TEST_F(IscsiTransportTest, SeekRefusesWhatIsNoPosition) {
    connect();
    EXPECT_EQ(transport->seek(blockBytes, absolute), blockBytes);
    const std::vector<std::pair<std::int64_t, int>> wrong{
        {0, 2},
        {0, -1},
        {-1, absolute},
        {-513, relative},
        {std::numeric_limits<std::int64_t>::max(), relative},
        {std::numeric_limits<std::int64_t>::min(), relative},
        {std::numeric_limits<std::int64_t>::min(), absolute}};
    for (const auto& [offset, whence] : wrong) {
        errno = 0;
        EXPECT_EQ(transport->seek(offset, whence), -1) << offset << " " << whence;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(position(), blockBytes);
    }
}

TEST_F(IscsiTransportTest, SeekClearsTheErrorOfBefore) {
    connect();
    errno = EIO;
    EXPECT_EQ(transport->seek(0, absolute), 0);
    EXPECT_EQ(errno, 0);
}

TEST_F(IscsiTransportTest, SeekKnowsNoEndWhereTheSizeIsNotKnown) {
    EXPECT_EQ(transport->seek(std::numeric_limits<std::int64_t>::max(), absolute),
              std::numeric_limits<std::int64_t>::max());
}

// --- read

TEST_F(IscsiTransportTest, ReadsFollowOneAnother) {
    connect();
    EXPECT_EQ(read(blockBytes), blockBytes);
    EXPECT_EQ(received, onDisk(0, blockBytes));
    EXPECT_EQ(read(3UL * blockBytes), 3 * blockBytes);
    EXPECT_EQ(received, onDisk(blockBytes, 3UL * blockBytes));
    EXPECT_EQ(position(), 4 * blockBytes);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 0, 512), command(readCall, 1, 1536)));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(iscsi.tasks, 0);
}

TEST_F(IscsiTransportTest, ReadAtTheEndGivesNothing) {
    connect();
    EXPECT_EQ(transport->seek(diskBytes, absolute), diskBytes);
    EXPECT_EQ(read(blockBytes), 0);
    EXPECT_EQ(position(), diskBytes);
    EXPECT_THAT(iscsi.calls, IsEmpty());
}

TEST_F(IscsiTransportTest, ReadIsCutAtTheEnd) {
    connect();
    EXPECT_EQ(transport->seek(-2 * static_cast<std::int64_t>(blockBytes) + diskBytes, absolute), 7168);
    EXPECT_EQ(read(5UL * blockBytes), 2 * blockBytes);
    received.resize(2UL * blockBytes);
    EXPECT_EQ(received, onDisk(7168, 2UL * blockBytes));
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 14, 1024)));
    EXPECT_EQ(position(), diskBytes);
}

TEST_F(IscsiTransportTest, AReadWithinABlockAsksForTheWholeOne) {
    connect();
    EXPECT_EQ(transport->seek(1124, absolute), 1124);
    EXPECT_EQ(read(100), 100);
    EXPECT_EQ(received, onDisk(1024, 100)) << "what is delivered begins where the block does";
    EXPECT_EQ(position(), 1224);
    EXPECT_EQ(read(400), 400);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 2, 512), command(readCall, 2, 1024)))
        << "the second one reaches into the next block";
}

TEST_F(IscsiTransportTest, AReadThatIsCutWithinABlockDeliversNoMoreThanAskedFor) {
    connect();
    EXPECT_EQ(transport->seek(7936, absolute), 7936);
    EXPECT_EQ(read(300), 300);
    EXPECT_EQ(transport->seek(7936, absolute), 7936);
    EXPECT_EQ(read(600), 512);
    EXPECT_THAT(iscsi.calls, Each(command(readCall, 15, 512)));
}

TEST_F(IscsiTransportTest, ReadingNothingIsNoFailure) {
    connect();
    EXPECT_EQ(read(0), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiTransportTest, TheImageBeginsAtItsOffset) {
    make(4UL * blockBytes);
    connect();
    EXPECT_EQ(read(blockBytes), blockBytes);
    EXPECT_EQ(received, onDisk(2048, blockBytes));
    EXPECT_EQ(write(newBytes(blockBytes)), blockBytes);
    EXPECT_EQ(onDisk(2560, blockBytes), newBytes(blockBytes));
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 4, 512), command(writeCall, 5, 512)));
    EXPECT_EQ(position(), 1024) << "positions count from the offset";
}

TEST_F(IscsiTransportTest, BehindAnOffsetTheTargetEndsEarlier) {
    make(4UL * blockBytes);
    connect();
    EXPECT_EQ(transport->seek(6144, absolute), 6144);
    EXPECT_EQ(read(blockBytes), 0);
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_THAT(iscsi.calls, IsEmpty());
}

TEST_F(IscsiTransportTest, AnOffsetNearTheLargestNumberDoesNotLeadBackToTheStart) {
    make(std::numeric_limits<std::uint64_t>::max() - 511);
    connect();
    const Bytes before = iscsi.disk;
    EXPECT_EQ(transport->seek(512, absolute), 512);
    EXPECT_EQ(read(blockBytes), 0);
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(iscsi.disk, before);
    EXPECT_THAT(iscsi.calls, IsEmpty());
}

TEST_F(IscsiTransportTest, AnOffsetWithinABlockCountsAsTheStartOfTheBlock) {
    make(1000);
    connect();
    EXPECT_EQ(read(blockBytes), blockBytes);
    EXPECT_EQ(received, onDisk(512, blockBytes));
    EXPECT_EQ(write(newBytes(blockBytes)), blockBytes);
    EXPECT_EQ(onDisk(1024, blockBytes), newBytes(blockBytes));
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 1, 1024), command(writeCall, 2, 512)));
}

TEST_F(IscsiTransportTest, BlocksOfFourKibibytesAreReadAndWrittenAsSuch) {
    iscsi.blockSize = 4096;
    iscsi.lastBlock = 1;
    connect();
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(transport->seek(4096, absolute), 4096);
    EXPECT_EQ(write(newBytes(4096)), 4096);
    EXPECT_EQ(transport->seek(4096, absolute), 4096);
    EXPECT_EQ(read(4096), 4096);
    EXPECT_EQ(received, newBytes(4096));
    EXPECT_THAT(iscsi.calls,
                ElementsAre(command(writeCall, 1, 4096, 4096), command(readCall, 1, 4096, 4096)));
}

TEST_F(IscsiTransportTest, WithoutAConnectionNothingIsReadOrWritten) {
    EXPECT_EQ(read(blockBytes), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_THAT(iscsi.calls, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiTransportTest, ASecondThreadIsTurnedAwayWhileACommandIsUnderWay) {
    connect();
    bool isFirst = true;
    const FakeIscsi::ActionInCalls during(iscsi, [&](const std::string& /*function*/) {
        if (!std::exchange(isFirst, false)) {
            return;
        }
        std::thread([&] {
            Bytes block(blockBytes);
            errno = 0;
            EXPECT_EQ(transport->read(block.data(), block.size()), -1);
            EXPECT_EQ(errno, EBUSY);
            errno = 0;
            EXPECT_EQ(transport->write(block.data(), block.size()), -1);
            EXPECT_EQ(errno, EBUSY);
        }).join();
    });
    EXPECT_EQ(read(blockBytes), blockBytes);
    isFirst = true;
    EXPECT_EQ(write(newBytes(blockBytes)), blockBytes);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 0, 512), command(writeCall, 1, 512)));
    EXPECT_THAT(log.lines(), IsEmpty()) << "and nothing was tried again";
}

} // namespace
} // namespace agent::core
