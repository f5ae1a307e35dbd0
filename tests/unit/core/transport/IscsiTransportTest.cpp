#include "unit/core/transport/IscsiTransportFixture.h"

#include <csignal>
#include <limits>

namespace agent::core {
namespace {

using Outcome = FakeIscsi::Outcome;
using enum FakeIscsi::Outcome;

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
