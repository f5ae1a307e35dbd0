#include "TransportFixture.h"

#include <cerrno>

namespace agent::contract {
namespace {

using BrokenTransportContract = TransportFixture<BreakableSubject>;

TEST_P(BrokenTransportContract, FailedReadStaysWhereItWas) {
    connect();
    transport->seek(2 * block, absolute);
    subject->startFailing();
    errno = 0;
    EXPECT_TRUE(isFailure(read(block)));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), 2 * block);
}

TEST_P(BrokenTransportContract, FailedWriteStaysWhereItWas) {
    connect();
    transport->seek(2 * block, absolute);
    subject->startFailing();
    errno = 0;
    EXPECT_TRUE(isFailure(write(patternOf(block, 77))));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), 2 * block);
    EXPECT_EQ(subject->image(), original);
}

TEST_P(BrokenTransportContract, WriteThatCannotCompareWritesNothing) {
    connect(true);
    transport->seek(2 * block, absolute);
    subject->startFailing();
    const std::string before = subject->lastWrite();
    errno = 0;
    EXPECT_TRUE(isFailure(write(patternOf(block, 77))));
    EXPECT_NE(errno, 0);
    EXPECT_EQ(subject->lastWrite(), before);
    EXPECT_EQ(subject->image(), original);
}

TEST_P(BrokenTransportContract, HoleThatCannotBePunchedIsToldOf) {
    connect();
    transport->seek(2 * block, absolute);
    subject->startFailing();
    if (!transport->supportsHolePunching()) {
        return;
    }
    errno = 0;
    if (!transport->punchHole(block)) {
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(position(), 2 * block);
    } else {
        EXPECT_TRUE(subject->mayFailLate());
        EXPECT_TRUE(isFailure(write(patternOf(block, 77))));
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(subject->image(), original);
}

TEST_P(BrokenTransportContract, NothingSucceedsBehindAFailure) {
    connect();
    transport->seek(2 * block, absolute);
    subject->startFailing();
    EXPECT_TRUE(isFailure(write(patternOf(block, 77))));
    errno = 0;
    EXPECT_TRUE(isFailure(read(block)));
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(isFailure(write(patternOf(block, 77))));
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), 2 * block);
    EXPECT_EQ(subject->image(), original);
}

TEST_P(BrokenTransportContract, CanBeConnectedAnewWhenAllIsWellAgain) {
    connect();
    subject->startFailing();
    EXPECT_TRUE(isFailure(read(block)));
    subject->stopFailing();
    connect();
    EXPECT_EQ(position(), 0);
    EXPECT_EQ(read(block), block);
    EXPECT_EQ(received, originalAt(0, block));
    EXPECT_EQ(write(patternOf(block, 77)), block);
    transport->disconnect();
    EXPECT_EQ(subject->image(), originalWith(block, patternOf(block, 77)));
}

TEST_P(BrokenTransportContract, DisconnectsAllTheSame) {
    connect();
    subject->startFailing();
    transport->disconnect();
    errno = 0;
    EXPECT_EQ(read(block), -1);
    EXPECT_EQ(errno, subject->staysBroken() ? EIO : ENOTCONN);
}

INSTANTIATE_TEST_SUITE_P(Each, BrokenTransportContract, testing::ValuesIn(breakableSubjects()),
                         [](const auto& test) { return test.param.name; });

} // namespace
} // namespace agent::contract
