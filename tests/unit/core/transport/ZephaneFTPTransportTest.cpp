#include "support/Messages.h"
#include "unit/core/transport/ZephaneFTPTransportFixture.h"

#include <gmock/gmock.h>

#include <zephane/ftp/ZephaneFTPException.h>

namespace agent::core {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

// --- connect

TEST_F(ZephaneFTPTransportTest, MakingOneSendsNothing) {
    transport.reset();
    EXPECT_THAT(zephane.calls, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, ConnectMakesTheClientStepByStepAndOpensIt) {
    EXPECT_TRUE(transport->connect(false));
    EXPECT_EQ(zephane.calls, join({making(10), {"open 1"}}));
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(zephane.clients, 1);
    EXPECT_EQ(position(), 0);
}

TEST_F(ZephaneFTPTransportTest, ComparingIsTheLibrarysWork) {
    EXPECT_TRUE(transport->connect(true));
    EXPECT_EQ(zephane.calls, join({making(11), {"open 1"}}));
    forget();
    EXPECT_EQ(write(4096), 4096);
    EXPECT_THAT(zephane.calls, ElementsAre("seek 0 0", "write 4096 0"));
    EXPECT_TRUE(transport->connect(false));
    EXPECT_THAT(zephane.calls, testing::Contains(making(10).back()));
}

TEST_F(ZephaneFTPTransportTest, RefusedConnectionIsTriedAgainByANewClientAfterASecond) {
    for (int failures = 1; failures < 5; ++failures) {
        SCOPED_TRACE(failures);
        make(0);
        forget();
        zephane.made = 0;
        refuse(failures);
        EXPECT_TRUE(transport->connect(false));
        Calls calls;
        std::vector<Line> lines;
        for (int attempt = 1; attempt <= failures; ++attempt) {
            const std::string number = std::to_string(attempt);
            calls = join({calls, making(10), {"open " + number, slept, "gone " + number}});
            lines.push_back(refused(attempt));
        }
        EXPECT_EQ(zephane.calls, join({calls, making(10), {"open " + std::to_string(failures + 1)}}));
        EXPECT_EQ(log.lines(), lines);
    }
}

TEST_F(ZephaneFTPTransportTest, LastTryHasTheCodeOfItsReason) {
    for (const auto& [code, told] :
         {std::pair{-EACCES, "target-login"}, std::pair{-EBUSY, "target-image"},
          std::pair{-EIO, "target-image"}, std::pair{-ECONNREFUSED, "target-refused"},
          std::pair{-ETIMEDOUT, "target-unreachable"},
          std::pair{std::numeric_limits<int>::min(), "target-unreachable"}}) {
        log.clear();
        zephane.script("open", std::vector<Answer>(5, Answer{.code = code, .text = "?"}));
        EXPECT_FALSE(transport->connect(false));
        EXPECT_THAT(log.codes(info::Reason::Kind::failure), ElementsAre(told, "target-unreachable"));
    }
}

TEST_F(ZephaneFTPTransportTest, AfterFiveRefusalsAndFiveSleepsThereAreNoMore) {
    refuse(6);
    EXPECT_FALSE(transport->connect(false));
    Calls calls;
    for (const char* number : {"1", "2", "3", "4", "5"}) {
        calls =
            join({calls, making(10), {std::string("open ") + number, slept, std::string("gone ") + number}});
    }
    EXPECT_EQ(zephane.calls, calls);
    EXPECT_THAT(log.lines(),
                ElementsAre(refused(1), refused(2), refused(3), refused(4), refused(5),
                            Line{error, "ZephaneFTP target connect exceeded max retries. Aborting."}));
    EXPECT_EQ(zephane.clients, 0);
    EXPECT_EQ(read(1), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(ZephaneFTPTransportTest, EveryCodeButZeroIsARefusal) {
    for (const int code : {1, -1, -26, std::numeric_limits<int>::min()}) {
        forget();
        zephane.script("open", {{.code = code, .text = "?"}});
        EXPECT_TRUE(transport->connect(false));
        EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Try: 1 Couldn't connect to " + address + " code: " +
                                                             std::to_string(code) + " message: ?"}));
    }
}

TEST_F(ZephaneFTPTransportTest, ASignalDoesNotShortenTheSleep) {
    refuse(1);
    zephane.sleep.interruptions = 1;
    EXPECT_TRUE(transport->connect(false));
    EXPECT_EQ(
        zephane.calls,
        join({making(10), {"open 1", slept, "nanosleep 0 300000000", "gone 1"}, making(10), {"open 2"}}));
}

TEST_F(ZephaneFTPTransportTest, WithoutASocketNothingIsTriedAndTheExceptionSaysSo) {
    for (const char* type : {"TLSTransport", "BasicSocket", "Decompressor", "Compressor"}) {
        forget();
        zephane.script(type, {{.code = -1}});
        EXPECT_EQ(test::messageOf<zephane::ZephaneFTPException>([&] { transport->connect(false); }),
                  "Invalid socket configuration")
            << type;
        EXPECT_TRUE(zephane.calls.back().starts_with(type)) << type;
        EXPECT_EQ(zephane.made, 0);
        EXPECT_EQ(read(1), -1);
        EXPECT_EQ(errno, ENOTCONN);
    }
}

TEST_F(ZephaneFTPTransportTest, NewClientIsThereBeforeTheOldOneGoesWithoutAWord) {
    connect();
    transport->seek(4096, absolute);
    EXPECT_TRUE(transport->connect(true));
    EXPECT_EQ(zephane.calls, join({making(11), {"open 2", "gone 1"}}));
    EXPECT_EQ(position(), 0);
    EXPECT_EQ(read(1), 1);
}

TEST_F(ZephaneFTPTransportTest, OldClientStaysWhereThereIsNoNewOne) {
    connect();
    refuse(5);
    EXPECT_FALSE(transport->connect(true));
    EXPECT_EQ(zephane.clients, 1);
    EXPECT_EQ(read(1), 1);
}

TEST_F(ZephaneFTPTransportTest, WhatTheServerSaysStaysOneLine) {
    zephane.script("open", {{.code = -5, .text = "two\nlines\x1b[2J"}});
    EXPECT_TRUE(transport->connect(false));
    EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Try: 1 Couldn't connect to " + address +
                                                         " code: -5 message: two\\nlines\\x1b[2J"}));
}

// --- disconnected, and disconnecting

TEST_F(ZephaneFTPTransportTest, WithoutAConnectionNothingIsDoneOrLogged) {
    EXPECT_EQ(read(1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(write(1), -1);
    EXPECT_EQ(errno, ENOTCONN);
    errno = 0;
    EXPECT_FALSE(transport->punchHole(1));
    EXPECT_EQ(errno, ENOTCONN);
    transport->disconnect();
    EXPECT_THAT(zephane.calls, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, DisconnectClosesTheClientAndKeepsIt) {
    connect();
    transport->disconnect();
    EXPECT_THAT(zephane.calls, ElementsAre("close"));
    EXPECT_EQ(zephane.clients, 1);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(read(1), -1);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(ZephaneFTPTransportTest, DestructorDisconnectsAndFreesTheClient) {
    connect();
    transport.reset();
    EXPECT_THAT(zephane.calls, ElementsAre("close", "gone 1"));
    connect();
    transport->disconnect();
    transport.reset(); // the second close finds the connection closed, which is not a failure
    EXPECT_THAT(zephane.calls, ElementsAre("close", "close", "gone 2"));
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, OnlyACloseThatLosesSomethingIsLogged) {
    connect();
    for (const int code : {0, -26}) {
        zephane.script("close", {{.code = code}});
        transport->disconnect();
        EXPECT_THAT(log.lines(), IsEmpty()) << code;
    }
    for (const int code : {1, -1, -25, -27}) {
        forget();
        zephane.script("close", {{.code = code, .text = "what was\nwritten"}});
        transport->disconnect();
        EXPECT_THAT(log.lines(),
                    ElementsAre(Line{error, "Couldn't close zephane client connection. code: " +
                                                std::to_string(code) + " message: what was\\nwritten"}));
    }
}

TEST_F(ZephaneFTPTransportTest, TheSecretIsInNoLine) {
    refuse(5);
    EXPECT_FALSE(transport->connect(false));
    connect();
    zephane.isBroken = true;
    EXPECT_EQ(read(1), 0);
    EXPECT_EQ(read(1), -1);
    EXPECT_FALSE(transport->punchHole(1));
    transport.reset();
    EXPECT_GT(log.lines().size(), 3U);
    EXPECT_FALSE(log.hasPart(error, "secret"));
}

} // namespace
} // namespace agent::core
