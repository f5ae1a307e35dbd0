#include "unit/core/transport/IscsiTransportFixture.h"

#include <algorithm>

namespace agent::core {
namespace {

using Outcome = FakeIscsi::Outcome;
using enum FakeIscsi::Outcome;

/// Up to five retries, each over a new session, may still lead to success.
TEST_F(IscsiTransportTest, AReadThatFailsIsRepeatedOverANewSession) {
    for (std::size_t failures = 1; failures <= 5; ++failures) {
        SCOPED_TRACE(failures);
        make(0);
        connect();
        EXPECT_EQ(transport->seek(1024, absolute), 1024);
        std::vector<Outcome> outcomes(failures, failed);
        outcomes.front() = refused;
        iscsi.script(readCall, outcomes);
        EXPECT_EQ(read(blockBytes), blockBytes);
        EXPECT_EQ(received, onDisk(1024, blockBytes));
        EXPECT_EQ(position(), 1536);
        Calls calls{command(readCall, 2, 512)};
        Lines lines;
        for (std::size_t round = 1; round <= failures; ++round) {
            calls = join<std::string>({calls, anotherSession(), {command(readCall, 2, 512)}});
            lines = join<Line>({lines, {readFailed, readAgain}, connectedLines});
        }
        EXPECT_EQ(iscsi.calls, calls);
        EXPECT_EQ(log.lines(), lines);
        expectFarewell();
    }
}

TEST_F(IscsiTransportTest, AReadIsGivenUpAfterFiveRounds) {
    connect();
    EXPECT_EQ(transport->seek(1024, absolute), 1024);
    iscsi.script(readCall, std::vector<Outcome>(6, refused));
    EXPECT_EQ(read(blockBytes), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), 1024);
    EXPECT_EQ(std::count(iscsi.calls.begin(), iscsi.calls.end(), slept), 5);
    EXPECT_EQ(std::count(iscsi.calls.begin(), iscsi.calls.end(), command(readCall, 2, 512)), 6);
    EXPECT_EQ(log.count(readFailed.level, readFailed.text), 6);
    EXPECT_EQ(log.count(readAgain.level, readAgain.text), 5);
    expectNoFarewell();
}

/// The same for writes.
TEST_F(IscsiTransportTest, AWriteThatFailsIsRepeatedOverANewSession) {
    for (std::size_t failures = 1; failures <= 5; ++failures) {
        SCOPED_TRACE(failures);
        make(0);
        connect();
        EXPECT_EQ(transport->seek(1024, absolute), 1024);
        std::vector<Outcome> outcomes(failures, refused);
        outcomes.front() = failed;
        iscsi.script(writeCall, outcomes);
        const Bytes data(blockBytes, static_cast<unsigned char>(failures));
        EXPECT_EQ(write(data), blockBytes);
        EXPECT_EQ(onDisk(1024, blockBytes), data);
        EXPECT_EQ(position(), 1536);
        Calls calls{command(writeCall, 2, 512)};
        Lines lines;
        for (std::size_t round = 1; round <= failures; ++round) {
            calls = join<std::string>({calls, anotherSession(), {command(writeCall, 2, 512)}});
            lines = join<Line>({lines, {writeFailed, writeAgain}, connectedLines});
        }
        EXPECT_EQ(iscsi.calls, calls);
        EXPECT_EQ(log.lines(), lines);
        expectFarewell();
    }
}

TEST_F(IscsiTransportTest, AWriteIsGivenUpAfterFiveRounds) {
    connect();
    EXPECT_EQ(transport->seek(1024, absolute), 1024);
    iscsi.script(writeCall, std::vector<Outcome>(6, failed));
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), 1024);
    EXPECT_EQ(std::count(iscsi.calls.begin(), iscsi.calls.end(), slept), 5);
    EXPECT_EQ(std::count(iscsi.calls.begin(), iscsi.calls.end(), command(writeCall, 2, 512)), 6);
    EXPECT_EQ(log.count(writeFailed.level, writeFailed.text), 6);
    EXPECT_EQ(log.count(writeAgain.level, writeAgain.text), 5);
    expectNoFarewell();
}

TEST_F(IscsiTransportTest, EachRoundTriesToLogInOnce) {
    connect();
    iscsi.script(writeCall, {failed});
    iscsi.script(loginCall, {failed, failed});
    EXPECT_EQ(write(newBytes(blockBytes)), blockBytes);
    const Calls noLogin = join<std::string>({preparation, {login, destroyed}});
    EXPECT_EQ(iscsi.calls, join<std::string>({{command(writeCall, 0, 512), slept, destroyed},
                                              noLogin,
                                              {slept},
                                              noLogin,
                                              {slept},
                                              session(),
                                              {command(writeCall, 0, 512)}}));
    EXPECT_EQ(log.lines(), join<Line>({{writeFailed, writeAgain, loginFailed(1), gaveUp, writeAgain,
                                        loginFailed(1), gaveUp, writeAgain},
                                       connectedLines}));
    EXPECT_EQ(position(), blockBytes);
}

TEST_F(IscsiTransportTest, ATargetThatStaysAwayLeavesNoConnection) {
    connect();
    EXPECT_EQ(transport->seek(1024, absolute), 1024);
    iscsi.script(readCall, {failed});
    iscsi.script(loginCall, std::vector<Outcome>(5, failed));
    EXPECT_EQ(read(blockBytes), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), 1024);
    EXPECT_EQ(iscsi.contexts, 0);
    forget();
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, ENOTCONN);
    transport->disconnect();
    EXPECT_THAT(iscsi.calls, IsEmpty());
}

TEST_F(IscsiTransportTest, ARoundWhoseConnectFailsHalfwayIsFollowedByTheNext) {
    connect();
    iscsi.script(readCall, {failed});
    iscsi.script(capacityCall, {refused});
    iscsi.script("iscsi_set_timeout", {good, failed});
    EXPECT_EQ(read(blockBytes), blockBytes);
    EXPECT_EQ(log.lines(), join<Line>({{readFailed,
                                        readAgain,
                                        {error, "Failed during iscsi read capacity command."},
                                        readAgain,
                                        {error, "Failed to set iscsi timeout."},
                                        readAgain},
                                       connectedLines}));
}

TEST_F(IscsiTransportTest, ATargetThatDeliversLessThanItSaysHasFailed) {
    connect();
    iscsi.script(readCall, {shorter});
    EXPECT_EQ(read(2UL * blockBytes), 2 * blockBytes);
    EXPECT_EQ(received, onDisk(0, 2UL * blockBytes));
    EXPECT_EQ(log.lines(), join<Line>({{readFailed, readAgain}, connectedLines}));
}

TEST_F(IscsiTransportTest, ATargetThatComesBackSmallerEndsEarlier) {
    connect();
    EXPECT_EQ(transport->seek(7168, absolute), 7168);
    iscsi.script(readCall, {failed});
    iscsi.script(writeCall, {failed});
    iscsi.lastBlock = 7;
    EXPECT_EQ(read(blockBytes), 0);
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, ENOSPC);
}

TEST_F(IscsiTransportTest, ATargetThatComesBackWithOtherBlocksIsNotWrittenAcrossThem) {
    connect();
    EXPECT_EQ(transport->seek(512, absolute), 512);
    iscsi.script(writeCall, {failed});
    iscsi.blockSize = 4096;
    iscsi.lastBlock = 1;
    const Bytes before = iscsi.disk;
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(iscsi.disk, before);
}

} // namespace
} // namespace agent::core
