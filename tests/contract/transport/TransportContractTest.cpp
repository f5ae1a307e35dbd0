#include "TransportFixture.h"

#include <cerrno>
#include <limits>

namespace agent::contract {
namespace {

using TransportContract = TransportFixture<TransportSubject>;

TEST_P(TransportContract, SeeksFromTheStartAndFromThePosition) {
    connect();
    EXPECT_EQ(position(), 0);
    EXPECT_EQ(transport->seek(3 * block, absolute), 3 * block);
    EXPECT_EQ(transport->seek(2 * block, relative), 5 * block);
    EXPECT_EQ(transport->seek(-block, relative), 4 * block);
    EXPECT_EQ(transport->seek(block, absolute), block);
    EXPECT_EQ(transport->seek(size, absolute), size); // the end of the image
    EXPECT_EQ(position(), size);
}

TEST_P(TransportContract, ImpossiblePositionsAreRefusedAndChangeNothing) {
    connect();
    transport->seek(block, absolute);
    constexpr std::int64_t farthest = std::numeric_limits<std::int64_t>::max();
    for (const auto& [offset, whence] : std::vector<std::pair<std::int64_t, int>>{
             {-1, absolute}, {-block - 1, relative}, {farthest, relative}, {0, 2}, {0, -1}}) {
        errno = 0;
        EXPECT_EQ(transport->seek(offset, whence), -1) << offset << " " << whence;
        EXPECT_EQ(errno, EINVAL) << offset << " " << whence;
        EXPECT_EQ(position(), block);
    }
}

TEST_P(TransportContract, ReadsWhatIsThereAndMovesBehindIt) {
    connect();
    EXPECT_EQ(read(2 * block), 2 * block);
    EXPECT_EQ(received, originalAt(0, 2 * block));
    EXPECT_EQ(position(), 2 * block);
    EXPECT_EQ(read(block), block);
    EXPECT_EQ(received, originalAt(2 * block, block));
    transport->seek(10 * block, absolute);
    EXPECT_EQ(read(block), block);
    EXPECT_EQ(received, originalAt(10 * block, block));
    EXPECT_EQ(subject->image(), original);
}

TEST_P(TransportContract, ReadsEndWithTheImage) {
    connect();
    transport->seek(size - block, absolute);
    EXPECT_EQ(read(3 * block), block);
    received.resize(block);
    EXPECT_EQ(received, originalAt(size - block, block));
    EXPECT_EQ(position(), size);
    EXPECT_EQ(read(block), 0);
    EXPECT_EQ(position(), size);
}

TEST_P(TransportContract, WritesInPlaceAndMovesBehindIt) {
    connect();
    const Bytes bytes = patternOf(2 * block, 77);
    transport->seek(4 * block, absolute);
    EXPECT_EQ(write(bytes), 2 * block);
    EXPECT_EQ(position(), 6 * block);
    transport->disconnect();
    EXPECT_EQ(subject->image(), originalWith(4 * block, bytes));
}

TEST_P(TransportContract, WhatIsWrittenIsRead) {
    connect();
    const Bytes bytes = patternOf(block, 99);
    EXPECT_EQ(write(bytes), block);
    transport->seek(0, absolute);
    EXPECT_EQ(read(block), block);
    EXPECT_EQ(received, bytes);
}

TEST_P(TransportContract, WritesEndWithTheImage) {
    connect();
    const Bytes bytes = patternOf(3 * block, 77);
    transport->seek(size - block, absolute);
    EXPECT_EQ(write(bytes), block);
    EXPECT_EQ(position(), size);
    errno = 0;
    EXPECT_TRUE(isFailure(write(bytes)));
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(position(), size);
    transport->disconnect();
    EXPECT_EQ(subject->image(), originalWith(size - block, {bytes.begin(), bytes.begin() + block}));
}

TEST_P(TransportContract, NothingIsReadAndWrittenAtOnce) {
    connect();
    transport->seek(block, absolute);
    EXPECT_EQ(read(0), 0);
    EXPECT_EQ(position(), block);
}

/// A write that isn't a whole number of blocks is refused or done as requested, but never rounded.
TEST_P(TransportContract, PartsOfBlocksAreRefusedOrWrittenAsTheyAre) {
    connect();
    for (const auto& [at, length] : std::vector<std::pair<std::int64_t, std::size_t>>{
             {block, 100}, {block + 7, TransportSubject::blockBytes}, {3, 5}}) {
        const Bytes before = subject->image();
        const Bytes bytes = patternOf(length, 177);
        transport->seek(at, absolute);
        errno = 0;
        const std::int64_t result = write(bytes);
        if (result < 0) {
            EXPECT_EQ(errno, EINVAL);
            EXPECT_EQ(position(), at);
            EXPECT_EQ(subject->image(), before);
        } else {
            EXPECT_EQ(result, static_cast<std::int64_t>(length));
            EXPECT_EQ(position(), at + result);
        }
    }
}

TEST_P(TransportContract, ComparingWriteLeavesOutWhatIsEqual) {
    connect(true);
    const std::string before = subject->lastWrite();
    transport->seek(2 * block, absolute);
    EXPECT_EQ(write(originalAt(2 * block, 3 * block)), 3 * block);
    EXPECT_EQ(position(), 5 * block);
    transport->disconnect();
    EXPECT_EQ(subject->lastWrite(), before);
    EXPECT_EQ(subject->image(), original);
}

TEST_P(TransportContract, ComparingWriteWritesWhatDiffers) {
    connect(true);
    const std::string before = subject->lastWrite();
    Bytes bytes = originalAt(2 * block, 2 * block);
    bytes.back() ^= 1U;
    transport->seek(2 * block, absolute);
    EXPECT_EQ(write(bytes), 2 * block);
    EXPECT_EQ(position(), 4 * block);
    transport->disconnect();
    EXPECT_NE(subject->lastWrite(), before);
    EXPECT_EQ(subject->image(), originalWith(2 * block, bytes));
}

TEST_P(TransportContract, PlainWriteWritesWhatIsEqualToo) {
    connect(false);
    const std::string before = subject->lastWrite();
    EXPECT_EQ(write(originalAt(0, block)), block);
    transport->disconnect();
    EXPECT_NE(subject->lastWrite(), before);
    EXPECT_EQ(subject->image(), original);
}

TEST_P(TransportContract, WithoutAConnectionNothingIsReadOrWritten) {
    for (int round = 0; round < 2; ++round) { // first never connected, then disconnected
        errno = 0;
        EXPECT_EQ(read(block), -1);
        EXPECT_EQ(errno, ENOTCONN);
        errno = 0;
        EXPECT_EQ(write(patternOf(block, 5)), -1);
        EXPECT_EQ(errno, ENOTCONN);
        connect();
        transport->disconnect();
    }
    EXPECT_EQ(subject->image(), original);
}

TEST_P(TransportContract, ConnectsAgainAtTheStart) {
    connect();
    transport->seek(5 * block, absolute);
    transport->disconnect();
    transport->disconnect(); // when already disconnected
    connect();
    EXPECT_EQ(position(), 0);
    transport->seek(5 * block, absolute);
    connect(); // without disconnecting first
    EXPECT_EQ(position(), 0);
    EXPECT_EQ(read(block), block);
    EXPECT_EQ(received, originalAt(0, block));
}

TEST_P(TransportContract, ComparesOnlyForAsLongAsItWasAskedTo) {
    connect(true);
    connect(false);
    const std::string before = subject->lastWrite();
    EXPECT_EQ(write(originalAt(0, block)), block);
    transport->disconnect();
    EXPECT_NE(subject->lastWrite(), before);
}

TEST_P(TransportContract, HolesReadAsZerosWhereTheyAreSupported) {
    const bool isSupported = transport->supportsHolePunching();
    connect();
    EXPECT_EQ(transport->supportsHolePunching(), isSupported);
    if (isSupported) {
        transport->seek(3 * block, absolute);
        EXPECT_TRUE(transport->punchHole(2 * block));
        EXPECT_EQ(position(), 5 * block);
        transport->disconnect();
        EXPECT_EQ(subject->image(), originalWith(3 * block, Bytes(2 * block)));
    }
}

TEST_P(TransportContract, TwoTransportsSeeOneImage) {
    connect();
    const std::shared_ptr<core::ITransport> other = subject->make();
    ASSERT_TRUE(other->connect(false));
    const Bytes bytes = patternOf(block, 200);
    EXPECT_EQ(write(bytes), block);
    received.assign(TransportSubject::blockBytes, 0);
    EXPECT_EQ(other->read(received.data(), received.size()), block);
    EXPECT_EQ(received, bytes);
}

INSTANTIATE_TEST_SUITE_P(Each, TransportContract, testing::ValuesIn(transportSubjects()),
                         [](const auto& test) { return test.param.name; });

} // namespace
} // namespace agent::contract
