#include "core/transport/IscsiTransport.h"

#include "support/FakeIscsi.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace agent::core {
namespace {

using info::level::debug;
using info::level::error;
using info::level::warning;
using test::FakeIscsi;
using testing::Each;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using testing::Not;
using Bytes = std::vector<unsigned char>;
using Calls = std::vector<std::string>;
using Line = test::RecordingLogger::Line;
using Lines = std::vector<Line>;
using Outcome = FakeIscsi::Outcome;
using enum FakeIscsi::Outcome;

constexpr std::uint32_t blockBytes = 512;
constexpr std::uint64_t blocks = 16;
constexpr std::int64_t diskBytes = blockBytes * blocks;
constexpr int absolute = 0;
constexpr int relative = 1;

const std::string targetName = "iqn.2026-01.example:images";
const std::string readCall = "iscsi_read16_task";
const std::string writeCall = "iscsi_write16_task";
const std::string flushCall = "iscsi_read16_sync";
const std::string loginCall = "iscsi_full_connect_sync";
const std::string capacityCall = "iscsi_readcapacity16_sync";
const std::string destroyed = "iscsi_destroy_context";
const std::string slept = "nanosleep 1 0";

const Line readFailed{error, "Failed during iscsi read command."};
const Line writeFailed{error, "Failed during iscsi write command."};
const Line readAgain{error, "Read iscsi failed. Sleeping, reconnecting, and retrying."};
const Line writeAgain{error, "Write iscsi failed. Sleeping, reconnecting, and retrying."};
const Line gaveUp{error, "Iscsi target connect failed. Aborting."};
const Line notCompared{warning,
                       "Failed to read a remote target block; the current block will be copied without diff"};
const Line wrongPosition{error, "Invalid seek position in remote target"};
const Lines connectedLines{{debug, "Iscsi connected:"},
                           {debug, "FD = 700"},
                           {debug, "tBlock size: 512"},
                           {debug, "tBlock count: 16"},
                           {debug, "Iscsi successfully connected."}};
const Calls preparation{"iscsi_create_context " + targetName,
                        "iscsi_set_tcp_user_timeout 60000",
                        "iscsi_set_noautoreconnect 1",
                        "iscsi_set_reconnect_max_retries 0",
                        "iscsi_set_targetname " + targetName,
                        "iscsi_set_session_type 2",
                        "iscsi_set_header_digest 1",
                        "iscsi_set_initiator_username_pwd user secret",
                        "iscsi_set_immediate_data 1",
                        "iscsi_set_initial_r2t 0",
                        "iscsi_set_timeout 60"};
const std::string login = loginCall + " 127.0.0.1:3260 3";
const Calls capacity{capacityCall + " 3", "scsi_datain_unmarshall"};
const Calls farewell{"iscsi_read16_sync 3 0 512 512 0 0 0 0 0", "iscsi_logout_sync", "iscsi_disconnect",
                     destroyed};

/// Concatenates vectors.
template <typename Element>
std::vector<Element> join(const std::vector<std::vector<Element>>& parts) {
    std::vector<Element> all;
    for (const std::vector<Element>& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

/// The recorded form of a command for LUN 3.
std::string command(const std::string& function, std::uint64_t block, std::uint64_t bytes,
                    std::uint32_t blockSize = blockBytes) {
    return function + " 3 " + std::to_string(block) + " " + std::to_string(bytes) + " " +
           std::to_string(blockSize) + " 0 0 0 0 0";
}

Calls session() {
    return join<std::string>({preparation, {login}, capacity});
}

/// The calls after a failed command: the session is dropped without a logout, and a new one is made.
Calls anotherSession() {
    return join<std::string>({{slept, destroyed}, session()});
}

Line loginFailed(int attempt) {
    return {error, "Iscsi target connect or Login failed: Try: " + std::to_string(attempt) +
                       " Target name: " + targetName +
                       " Target portal: 127.0.0.1:3260 LUN: 3. Error: " + loginCall + " has failed"};
}

class IscsiTransportTest : public testing::Test {
protected:
    IscsiTransportTest() {
        iscsi.lastBlock = blocks - 1;
        iscsi.disk.resize(diskBytes);
        for (std::size_t at = 0; at < iscsi.disk.size(); ++at) {
            iscsi.disk[at] = static_cast<unsigned char>(at % 251);
        }
    }

    ~IscsiTransportTest() override {
        transport.reset();
        EXPECT_EQ(iscsi.contexts, 0);
        EXPECT_EQ(iscsi.tasks, 0);
        EXPECT_EQ(iscsi.lostCommands, 0);
    }

    void make(std::uint64_t offset) {
        transport.emplace(log.logger, targetName, "127.0.0.1:3260", 3, offset, "user", "secret");
    }

    /// Connects, and forgets the recorded calls and lines.
    void connect(bool diffMerge = false) {
        ASSERT_TRUE(transport->connect(diffMerge));
        forget();
    }

    void forget() {
        log.clear();
        iscsi.calls.clear();
    }

    [[nodiscard]] std::int64_t position() { return transport->seek(0, relative); }

    /// Reads into a buffer of exactly `length` bytes, and keeps them.
    std::int64_t read(std::uint64_t length) {
        received.assign(length, 0);
        received.shrink_to_fit();
        errno = 0;
        return transport->read(received.data(), length);
    }

    std::int64_t write(const Bytes& data) {
        errno = 0;
        return transport->write(data.data(), data.size());
    }

    [[nodiscard]] Bytes onDisk(std::uint64_t offset, std::uint64_t length) const {
        const auto begin = iscsi.disk.begin() + static_cast<std::ptrdiff_t>(offset);
        return {begin, begin + static_cast<std::ptrdiff_t>(length)};
    }

    /// Ends the session and expects no logout, which shows that the session was regarded as broken.
    void expectNoFarewell() {
        forget();
        transport->disconnect();
        EXPECT_THAT(iscsi.calls, ElementsAre(destroyed));
        EXPECT_THAT(log.lines(), IsEmpty());
    }

    void expectFarewell() {
        forget();
        transport->disconnect();
        EXPECT_EQ(iscsi.calls, farewell);
        EXPECT_THAT(log.lines(), IsEmpty());
    }

    FakeIscsi iscsi;
    test::RecordingLogger log;
    std::optional<IscsiTransport> transport{std::in_place, log.logger, targetName, "127.0.0.1:3260", 3, 0,
                                            "user",        "secret"};
    Bytes received;
};

/// Bytes that differ from the disk's.
Bytes newBytes(std::size_t length) {
    return Bytes(length, 0xFE);
}

// --- connect

TEST_F(IscsiTransportTest, ConnectMakesTheSessionStepByStep) {
    EXPECT_TRUE(transport->connect(false));
    EXPECT_EQ(iscsi.calls, session());
    EXPECT_EQ(log.lines(), connectedLines);
    EXPECT_EQ(iscsi.contexts, 1);
    EXPECT_EQ(iscsi.tasks, 0);
}

TEST_F(IscsiTransportTest, WithoutAContextNothingElseIsTried) {
    iscsi.script("iscsi_create_context", {failed});
    EXPECT_FALSE(transport->connect(false));
    EXPECT_THAT(iscsi.calls, ElementsAre("iscsi_create_context " + targetName));
    EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Failed to create iscsi context."}));
}

/// If an option can't be set, a retry can't help. The context must not leak.
TEST_F(IscsiTransportTest, AnOptionThatCanNotBeSetEndsTheConnectAtOnce) {
    const std::vector<std::pair<std::string, std::string>> options{
        {"iscsi_set_targetname", "Failed to set iscsi target name."},
        {"iscsi_set_session_type", "Failed to set iscsi session type."},
        {"iscsi_set_header_digest", "Failed to set iscsi header digest."},
        {"iscsi_set_initiator_username_pwd", "Failed to set iscsi initiator username and password."},
        {"iscsi_set_immediate_data",
         "Failed to set iscsi 'IMMEDIATE DATA' option. iscsi_set_immediate_data has failed"},
        {"iscsi_set_initial_r2t",
         "Failed to set iscsi 'INITIAL R2T' option. iscsi_set_initial_r2t has failed"},
        {"iscsi_set_timeout", "Failed to set iscsi timeout."}};
    for (const auto& [function, message] : options) {
        SCOPED_TRACE(function);
        forget();
        iscsi.script(function, {failed});
        EXPECT_FALSE(transport->connect(false));
        EXPECT_THAT(log.lines(), ElementsAre(Line{error, message}));
        ASSERT_GE(iscsi.calls.size(), 2U);
        EXPECT_TRUE(iscsi.calls.end()[-2].starts_with(function + " ")) << iscsi.calls.end()[-2];
        EXPECT_EQ(iscsi.calls.back(), destroyed);
        EXPECT_EQ(iscsi.contexts, 0);
        EXPECT_EQ(read(blockBytes), -1);
        EXPECT_EQ(errno, ENOTCONN);
    }
}

TEST_F(IscsiTransportTest, ALoginThatFailsIsTriedAgainFromAFreshContextAfterASecond) {
    for (int failures = 1; failures < 5; ++failures) {
        SCOPED_TRACE(failures);
        make(0);
        forget();
        iscsi.script(loginCall, std::vector<Outcome>(static_cast<std::size_t>(failures), failed));
        EXPECT_TRUE(transport->connect(false));
        Calls calls;
        Lines lines;
        for (int attempt = 1; attempt <= failures; ++attempt) {
            calls = join<std::string>({calls, preparation, {login, destroyed, slept}});
            lines.push_back(loginFailed(attempt));
        }
        EXPECT_EQ(iscsi.calls, join<std::string>({calls, session()}));
        EXPECT_EQ(log.lines(), join<Line>({lines, connectedLines}));
    }
}

TEST_F(IscsiTransportTest, AfterFiveFailedLoginsThereAreNoMore) {
    iscsi.script(loginCall, std::vector<Outcome>(5, failed));
    EXPECT_FALSE(transport->connect(false));
    Calls calls;
    for (int attempt = 1; attempt <= 5; ++attempt) {
        calls = join<std::string>({calls, preparation, {login, destroyed, slept}});
    }
    EXPECT_EQ(iscsi.calls, calls);
    EXPECT_THAT(log.lines(),
                ElementsAre(loginFailed(1), loginFailed(2), loginFailed(3), loginFailed(4), loginFailed(5),
                            Line{error, "Iscsi target connect exceeded max retries. Aborting."}));
    EXPECT_EQ(iscsi.contexts, 0);
}

TEST_F(IscsiTransportTest, AnOptionThatCanNotBeSetInALaterTryEndsThemAll) {
    iscsi.script(loginCall, {failed});
    iscsi.script("iscsi_set_timeout", {good, failed});
    EXPECT_FALSE(transport->connect(false));
    EXPECT_EQ(iscsi.calls,
              join<std::string>({preparation, {login, destroyed, slept}, preparation, {destroyed}}));
    EXPECT_THAT(log.lines(), ElementsAre(loginFailed(1), Line{error, "Failed to set iscsi timeout."}));
}

TEST_F(IscsiTransportTest, ASignalDoesNotShortenTheSleep) {
    iscsi.script(loginCall, {failed});
    iscsi.sleep.interruptions = 1;
    EXPECT_TRUE(transport->connect(false));
    EXPECT_EQ(iscsi.calls, join<std::string>(
                               {preparation, {login, destroyed, slept, "nanosleep 0 300000000"}, session()}));
}

TEST_F(IscsiTransportTest, ATargetThatDoesNotTellItsSizeIsLeft) {
    for (const Outcome outcome : {failed, refused}) {
        forget();
        iscsi.script(capacityCall, {outcome});
        EXPECT_FALSE(transport->connect(false));
        EXPECT_EQ(iscsi.calls, join<std::string>({preparation, {login, capacityCall + " 3", destroyed}}));
        EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Failed during iscsi read capacity command."}));
        EXPECT_EQ(iscsi.contexts, 0);
        EXPECT_EQ(iscsi.tasks, 0);
    }
}

TEST_F(IscsiTransportTest, ASizeThatCanNotBeDecodedEndsTheConnect) {
    iscsi.script("scsi_datain_unmarshall", {failed});
    EXPECT_FALSE(transport->connect(false));
    EXPECT_EQ(iscsi.calls, join<std::string>({session(), {destroyed}}));
    EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Failed to unmarshall read capacity data."}));
    EXPECT_EQ(iscsi.contexts, 0);
    EXPECT_EQ(iscsi.tasks, 0);
}

TEST_F(IscsiTransportTest, BlocksThatNoDiskHasAreRefused) {
    for (const std::uint32_t size : {0U, (1U << 20U) + 1, 1U << 31U}) {
        forget();
        iscsi.blockSize = size;
        EXPECT_FALSE(transport->connect(false));
        EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Iscsi target has blocks of " +
                                                             std::to_string(size) + " bytes."}));
        EXPECT_EQ(iscsi.calls.back(), destroyed);
        EXPECT_EQ(read(blockBytes), -1);
        EXPECT_EQ(errno, ENOTCONN);
    }
    iscsi.blockSize = 1U << 20U;
    EXPECT_TRUE(transport->connect(false));
}

TEST_F(IscsiTransportTest, ALastBlockThatLeavesNoCountGivesAnEmptyTarget) {
    iscsi.lastBlock = std::numeric_limits<std::uint64_t>::max();
    EXPECT_TRUE(transport->connect(false));
    EXPECT_TRUE(log.has(debug, "tBlock count: 0"));
    forget();
    EXPECT_EQ(read(blockBytes), 0);
    EXPECT_EQ(write(newBytes(blockBytes)), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_THAT(iscsi.calls, IsEmpty());
}

TEST_F(IscsiTransportTest, ConnectingAgainStartsFromTheBeginning) {
    connect();
    EXPECT_EQ(transport->seek(blockBytes, absolute), blockBytes);
    transport->disconnect();
    connect();
    EXPECT_EQ(position(), 0);
    EXPECT_EQ(read(blockBytes), blockBytes);
    EXPECT_EQ(received, onDisk(0, blockBytes));
}

TEST_F(IscsiTransportTest, ATargetMayBeTriedAgainAfterAFailedConnect) {
    iscsi.script(capacityCall, {refused});
    EXPECT_FALSE(transport->connect(false));
    forget();
    EXPECT_TRUE(transport->connect(false));
    EXPECT_EQ(iscsi.calls, session());
}

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

// --- rounds of retries

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

// --- disconnect

TEST_F(IscsiTransportTest, DisconnectTakesLeaveOfTheTarget) {
    connect();
    expectFarewell();
    EXPECT_EQ(iscsi.contexts, 0);
    EXPECT_EQ(iscsi.tasks, 0);
}

TEST_F(IscsiTransportTest, DisconnectingTwiceIsOneTooMany) {
    transport->disconnect();
    EXPECT_THAT(iscsi.calls, IsEmpty()) << "never connected";
    connect();
    transport->disconnect();
    transport->disconnect();
    EXPECT_EQ(iscsi.calls, farewell);
    transport.reset();
    EXPECT_EQ(iscsi.calls, farewell);
}

TEST_F(IscsiTransportTest, TheDestructorDisconnects) {
    connect();
    transport.reset();
    EXPECT_EQ(iscsi.calls, farewell);
    EXPECT_EQ(iscsi.contexts, 0);
}

TEST_F(IscsiTransportTest, ATargetThatDoesNotFlushIsNotLoggedOutOf) {
    for (const Outcome outcome : {failed, refused}) {
        connect();
        iscsi.script(flushCall, {outcome});
        transport->disconnect();
        EXPECT_THAT(iscsi.calls, ElementsAre(command(flushCall, 0, 512), "iscsi_disconnect", destroyed));
        EXPECT_THAT(log.lines(), IsEmpty());
    }
    connect(); // the new session is trusted again
    expectFarewell();
}

TEST_F(IscsiTransportTest, WithoutALoginThereIsNoLogout) {
    connect();
    iscsi.isLoggedIn = false;
    transport->disconnect();
    EXPECT_THAT(iscsi.calls, ElementsAre(command(flushCall, 0, 512), "iscsi_disconnect", destroyed));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IscsiTransportTest, AFailingFarewellIsLoggedAndGoesOn) {
    connect();
    iscsi.script("iscsi_logout_sync", {failed});
    iscsi.script("iscsi_disconnect", {failed});
    transport->disconnect();
    EXPECT_EQ(iscsi.calls, farewell);
    EXPECT_THAT(log.lines(), ElementsAre(Line{warning, "Iscsi logout failed."},
                                         Line{warning, "Iscsi disconnect failed."}));
}

// --- broken pipes

volatile std::sig_atomic_t brokenPipes = 0;

void countBrokenPipe(int /*signal*/) {
    brokenPipes = brokenPipes + 1;
}

/// A broken connection may raise SIGPIPE in any call of the library. It must not reach the agent, where it
/// would end the process or cancel the backup.
TEST_F(IscsiTransportTest, NoBrokenPipeOfTheLibraryGetsOut) {
    brokenPipes = 0;
    struct sigaction counting{};
    struct sigaction previous{};
    counting.sa_handler = countBrokenPipe;
    sigaction(SIGPIPE, &counting, &previous);
    Calls raisedIn;
    const FakeIscsi::ActionInCalls during(iscsi, [&](const std::string& function) {
        if (function != "nanosleep") {
            raisedIn.push_back(function);
            EXPECT_EQ(std::raise(SIGPIPE), 0);
        }
    });
    iscsi.script(loginCall, {failed, good, failed});
    EXPECT_TRUE(transport->connect(true));
    iscsi.script(readCall, {failed});
    EXPECT_EQ(read(blockBytes), blockBytes);
    EXPECT_EQ(write(newBytes(blockBytes)), blockBytes);
    transport->disconnect();
    EXPECT_EQ(brokenPipes, 0);
    for (const std::string& function : {loginCall, capacityCall, readCall, writeCall, destroyed,
                                        std::string("iscsi_logout_sync"), std::string("iscsi_disconnect")}) {
        EXPECT_THAT(raisedIn, testing::Contains(function));
    }
    std::raise(SIGPIPE);
    EXPECT_EQ(brokenPipes, 1) << "which is held back no longer";
    sigaction(SIGPIPE, &previous, nullptr);
}

} // namespace
} // namespace agent::core
