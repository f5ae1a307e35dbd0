#include "unit/core/transport/IscsiTransportFixture.h"

#include <limits>

namespace agent::core {
namespace {

using testing::Not;
using Outcome = FakeIscsi::Outcome;
using enum FakeIscsi::Outcome;

// --- write

TEST_F(IscsiTransportTest, WritesFollowOneAnother) {
    connect();
    const Bytes data = newBytes(3UL * blockBytes);
    EXPECT_EQ(write(newBytes(blockBytes)), blockBytes);
    EXPECT_EQ(write(data), 3 * blockBytes);
    EXPECT_EQ(onDisk(0, 4UL * blockBytes), newBytes(4UL * blockBytes));
    EXPECT_EQ(position(), 4 * blockBytes);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(writeCall, 0, 512), command(writeCall, 1, 1536)));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(iscsi.tasks, 0);
}

TEST_F(IscsiTransportTest, WritesAreWholeBlocks) {
    connect();
    for (const std::size_t length : {1U, 511U, 513U}) {
        EXPECT_EQ(write(newBytes(length)), -1);
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(transport->seek(100, absolute), 100);
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(position(), 100);
    EXPECT_THAT(iscsi.calls, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiTransportTest, AWriteAtTheEndFindsNoRoom) {
    connect();
    EXPECT_EQ(transport->seek(diskBytes, absolute), diskBytes);
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_THAT(iscsi.calls, IsEmpty());
}

TEST_F(IscsiTransportTest, AWriteIsCutAtTheEnd) {
    connect();
    EXPECT_EQ(transport->seek(7168, absolute), 7168);
    EXPECT_EQ(write(newBytes(5UL * blockBytes)), 2 * blockBytes);
    EXPECT_EQ(onDisk(7168, 1024), newBytes(1024));
    EXPECT_EQ(position(), diskBytes);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(writeCall, 14, 1024)));
}

TEST_F(IscsiTransportTest, NoCommandIsSentForMoreThanItCanCarry) {
    iscsi.lastBlock = 1U << 30U;
    for (const bool diffMerge : {false, true}) {
        connect(diffMerge);
        for (const std::uint64_t length :
             {std::uint64_t{1} << 31U, std::uint64_t{1} << 32U, std::uint64_t{1} << 63U}) {
            Bytes data(blockBytes); // must not be read
            errno = 0;
            EXPECT_EQ(transport->write(data.data(), length), -1);
            EXPECT_EQ(errno, EINVAL);
            errno = 0;
            EXPECT_EQ(transport->read(data.data(), length), -1);
            EXPECT_EQ(errno, EINVAL);
        }
        EXPECT_THAT(iscsi.calls, IsEmpty());
        transport->disconnect();
    }
}

TEST_F(IscsiTransportTest, AWriteIsNotCutByTheBytesOfAnImpossibleSize) {
    iscsi.lastBlock = (std::uint64_t{1} << 55U) - 1; // times 512 exceeds 64 bits
    connect();
    EXPECT_EQ(write(newBytes(1024)), 1024);
    EXPECT_EQ(onDisk(0, 1024), newBytes(1024));
}

// --- writes that compare first

TEST_F(IscsiTransportTest, ABlockThatEqualsTheRemoteOneIsNotWritten) {
    connect(true);
    EXPECT_EQ(transport->seek(1024, absolute), 1024);
    EXPECT_EQ(write(onDisk(1024, 1024)), 1024);
    EXPECT_EQ(position(), 2048);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 2, 1024)));
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{
                    debug, "Iscsi diffmerge: local block 1024 (len 1024) matches remote; skipping write"}));
}

TEST_F(IscsiTransportTest, ABlockThatDiffersInItsLastByteIsWritten) {
    connect(true);
    EXPECT_EQ(transport->seek(1024, absolute), 1024);
    Bytes data = onDisk(1024, 1024);
    data.back() ^= 1U;
    EXPECT_EQ(write(data), 1024);
    EXPECT_EQ(onDisk(1024, 1024), data);
    EXPECT_EQ(position(), 2048);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 2, 1024), command(writeCall, 2, 1024)));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiTransportTest, BlocksOfAllSizesAreCompared) {
    connect(true);
    for (const std::uint64_t length : {512U, 4096U, 512U, 1024U}) {
        EXPECT_EQ(transport->seek(0, absolute), 0);
        EXPECT_EQ(write(onDisk(0, length)), static_cast<std::int64_t>(length));
        EXPECT_EQ(transport->seek(0, absolute), 0);
        EXPECT_EQ(write(Bytes(length, static_cast<unsigned char>(length / 512))),
                  static_cast<std::int64_t>(length));
    }
    EXPECT_EQ(iscsi.calls.size(), 12U) << "two reads and a write for each size";
    EXPECT_EQ(onDisk(0, 1024), Bytes(1024, 2));
}

TEST_F(IscsiTransportTest, WithoutComparingNothingIsReadBeforeAWrite) {
    connect(false);
    EXPECT_EQ(write(onDisk(0, blockBytes)), blockBytes);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(writeCall, 0, 512)));
}

TEST_F(IscsiTransportTest, ABlockThatCanNotBeComparedIsNotWritten) {
    connect(true);
    EXPECT_EQ(transport->seek(1024, absolute), 1024);
    iscsi.script(readCall, std::vector<Outcome>(6, failed));
    const Bytes before = iscsi.disk;
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(iscsi.disk, before);
    EXPECT_THAT(iscsi.calls, Not(testing::Contains(testing::StartsWith(writeCall))));
    const Lines lines = log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines.end()[-2], notCompared);
    EXPECT_EQ(lines.back(), wrongPosition);
    EXPECT_EQ(position(), 1024);
}

TEST_F(IscsiTransportTest, ABlockOfWhichThereIsLessToCompareIsNotWritten) {
    connect(true);
    EXPECT_EQ(transport->seek(7680, absolute), 7680);
    const Bytes before = iscsi.disk;
    EXPECT_EQ(write(newBytes(1024)), -1);
    EXPECT_EQ(iscsi.disk, before);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 15, 512)));
    EXPECT_THAT(log.lines(), ElementsAre(notCompared, wrongPosition));
}

TEST_F(IscsiTransportTest, AComparisonMayNeedANewSession) {
    connect(true);
    iscsi.script(readCall, {failed});
    EXPECT_EQ(write(onDisk(0, blockBytes)), blockBytes);
    EXPECT_EQ(iscsi.calls, join<std::string>(
                               {{command(readCall, 0, 512)}, anotherSession(), {command(readCall, 0, 512)}}));
    EXPECT_EQ(log.lines(),
              join<Line>({{readFailed, readAgain},
                          connectedLines,
                          {{debug, "Iscsi diffmerge: local block 0 (len 512) matches remote; skipping "
                                   "write"}}}));
}

TEST_F(IscsiTransportTest, AfterANewSessionWritesAreNotComparedAnyMore) {
    for (const std::string& function : {readCall, writeCall}) {
        make(0);
        connect(true);
        iscsi.script(function, {failed});
        EXPECT_EQ(write(newBytes(blockBytes)), blockBytes);
        EXPECT_EQ(onDisk(0, blockBytes), newBytes(blockBytes));
        forget();
        EXPECT_EQ(write(onDisk(512, blockBytes)), blockBytes);
        EXPECT_THAT(iscsi.calls, ElementsAre(command(writeCall, 1, 512)));
        iscsi.disk[0] ^= 1U;
    }
}

TEST_F(IscsiTransportTest, AComparedBlockThatCanNotBeWrittenIsAnsweredAsAnyOther) {
    connect(true);
    iscsi.script(writeCall, std::vector<Outcome>(6, refused));
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), 0);
}

TEST_F(IscsiTransportTest, AComparedBlockBehindAnImpossibleSizeIsNotWritten) {
    iscsi.lastBlock = std::uint64_t{1} << 55U; // times 512 wraps to 512
    connect(true);
    EXPECT_EQ(transport->seek(blockBytes, absolute), blockBytes);
    EXPECT_EQ(read(blockBytes), blockBytes) << "which goes beyond";
    forget();
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_THAT(iscsi.calls, ElementsAre(command(readCall, 2, 512)));
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{error, "Failed to seek to offset 1024 in remote target with size 512"}));
}

// --- holes

TEST_F(IscsiTransportTest, AHoleIsOnlySteppedOver) {
    connect();
    EXPECT_FALSE(transport->supportsHolePunching());
    EXPECT_TRUE(transport->punchHole(1024));
    EXPECT_EQ(position(), 1024);
    EXPECT_THAT(iscsi.calls, IsEmpty());
}

TEST_F(IscsiTransportTest, AHoleIsJudgedByWhetherThePositionIsZero) {
    connect();
    EXPECT_FALSE(transport->punchHole(0));
    EXPECT_TRUE(transport->punchHole(diskBytes + 1)) << "a seek that fails gives -1";
    EXPECT_EQ(position(), 0);
    EXPECT_TRUE(transport->punchHole(std::numeric_limits<std::uint64_t>::max()));
    EXPECT_EQ(position(), 0);
}

} // namespace
} // namespace agent::core
