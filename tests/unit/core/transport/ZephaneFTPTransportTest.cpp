#include "core/transport/ZephaneFTPTransport.h"

#include "support/FakeZephane.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>
#include <zephane/ftp/ZephaneFTPException.h>

namespace agent::core {
namespace {

using info::level::error;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Answer = test::FakeZephane::Answer;
using Bytes = std::vector<unsigned char>;
using Calls = std::vector<std::string>;
using Line = test::RecordingLogger::Line;

constexpr std::int64_t mebibyte = 1 << 20;
constexpr std::int64_t piece = 4 * mebibyte;
constexpr std::int64_t imageBytes = 10 * mebibyte;
constexpr std::uint64_t largestId = std::numeric_limits<std::uint64_t>::max();
constexpr std::int64_t farthest = std::numeric_limits<std::int64_t>::max();
constexpr int absolute = 0;
constexpr int relative = 1;

const std::string slept = "nanosleep 1 0";
const std::string address = "zephane://server:25568/host1/data/18446744073709551615";

/// The recorded construction of a client with these flags and of its parts.
Calls making(int flags) {
    return {"TLSTransport '' ''", "BasicSocket TLSTransport", "Decompressor", "Compressor",
            "ZephaneFTPClient server 25568 host1/data 18446744073709551615 " + std::to_string(flags) +
                " the secret reading: Decompressor writing: Compressor"};
}

Calls join(const std::vector<Calls>& parts) {
    Calls all;
    for (const Calls& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

Line refused(int attempt) {
    return {error, "Try: " + std::to_string(attempt) + " Couldn't connect to " + address +
                       " code: -13 message: no such image"};
}

class ZephaneFTPTransportTest : public testing::Test {
protected:
    ZephaneFTPTransportTest() {
        zephane.image.resize(imageBytes);
        for (std::size_t at = 0; at < zephane.image.size(); at += 4096) {
            zephane.image[at] = static_cast<unsigned char>(1 + at / 4096 % 251);
        }
    }

    ~ZephaneFTPTransportTest() override {
        transport.reset();
        EXPECT_EQ(zephane.clients, 0);
    }

    void make(std::uint64_t offset) {
        transport.emplace(log.logger, "server", "host1/data", largestId, offset, std::uint16_t{25568},
                          "the secret");
    }

    /// Connects, and forgets the recorded calls and lines.
    void connect(std::uint64_t offset = 0) {
        make(offset);
        ASSERT_TRUE(transport->connect(false));
        forget();
    }

    void forget() {
        log.clear();
        zephane.calls.clear();
    }

    void refuse(int times) {
        zephane.script("open", std::vector<Answer>(static_cast<std::size_t>(times),
                                                   Answer{.code = -EACCES, .text = "no such image"}));
    }

    [[nodiscard]] std::int64_t position() { return transport->seek(0, relative); }

    /// Reads into a buffer of exactly `length` bytes, and keeps them.
    std::int64_t read(std::size_t length) {
        received.assign(length, 0);
        received.shrink_to_fit();
        errno = 0;
        return transport->read(received.data(), length);
    }

    std::int64_t write(std::size_t length) {
        const Bytes data(length, 0xFE);
        errno = 0;
        return transport->write(data.data(), data.size());
    }

    [[nodiscard]] Bytes imageFrom(std::int64_t offset, std::int64_t length) const {
        return {zephane.image.begin() + offset, zephane.image.begin() + offset + length};
    }

    test::FakeZephane zephane;
    test::RecordingLogger log;
    std::optional<ZephaneFTPTransport> transport{std::in_place,        log.logger,  "server",
                                                 "host1/data",         largestId,   std::uint64_t{0},
                                                 std::uint16_t{25568}, "the secret"};
    Bytes received;
};

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

// --- seek

TEST_F(ZephaneFTPTransportTest, SeekingSendsNothingAndHasNoUpperBound) {
    connect();
    for (const auto& [distance, whence, target] :
         std::vector<std::tuple<std::int64_t, int, std::int64_t>>{{5, absolute, 5},
                                                                  {3, relative, 8},
                                                                  {-8, relative, 0},
                                                                  {imageBytes + 1, absolute, imageBytes + 1},
                                                                  {farthest, absolute, farthest}}) {
        errno = ENOENT;
        EXPECT_EQ(transport->seek(distance, whence), target);
        EXPECT_EQ(errno, 0);
        EXPECT_EQ(position(), target);
    }
    EXPECT_THAT(zephane.calls, IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, ImpossiblePositionsAreInvalidAndChangeNothing) {
    connect();
    transport->seek(7, absolute);
    for (const auto& [distance, whence] : std::vector<std::pair<std::int64_t, int>>{
             {-1, absolute}, {-8, relative}, {farthest - 6, relative}, {0, 2}, {0, -1}}) {
        errno = 0;
        EXPECT_EQ(transport->seek(distance, whence), -1) << distance << " " << whence;
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(position(), 7);
    }
}

// --- read and write

TEST_F(ZephaneFTPTransportTest, WritesGoInPiecesOf4MiBEachAtItsPlace) {
    connect(4096);
    transport->seek(8192, absolute);
    EXPECT_EQ(write(9 * mebibyte), 9 * mebibyte);
    EXPECT_THAT(zephane.calls, ElementsAre("seek 12288 0", "write 4194304 0", "seek 4206592 0",
                                           "write 4194304 0", "seek 8400896 0", "write 1048576 0"));
    EXPECT_EQ(position(), 8192 + 9 * mebibyte);
    EXPECT_EQ(imageFrom(12288, 9 * mebibyte), Bytes(9 * mebibyte, 0xFE));
    EXPECT_EQ(zephane.image[8192], 3);
    EXPECT_EQ(imageFrom(12288 + 9 * mebibyte, 1), Bytes{static_cast<unsigned char>(1 + (3 + 9 * 256) % 251)});
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, ReadsGoInPiecesOf4MiBEachAtItsPlace) {
    connect(4096);
    EXPECT_EQ(read(9 * mebibyte), 9 * mebibyte);
    EXPECT_THAT(zephane.calls, ElementsAre("seek 4096 0", "read 4194304", "seek 4198400 0", "read 4194304",
                                           "seek 8392704 0", "read 1048576"));
    EXPECT_EQ(received, imageFrom(4096, 9 * mebibyte));
    EXPECT_EQ(position(), 9 * mebibyte);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, WholePieceIsOnePiece) {
    connect();
    EXPECT_EQ(write(piece), piece);
    EXPECT_THAT(zephane.calls, ElementsAre("seek 0 0", "write 4194304 0"));
    forget();
    EXPECT_EQ(read(piece + 1), piece + 1);
    EXPECT_THAT(zephane.calls, ElementsAre("seek 4194304 0", "read 4194304", "seek 8388608 0", "read 1"));
}

TEST_F(ZephaneFTPTransportTest, NothingToReadOrWriteSendsNothing) {
    connect();
    EXPECT_EQ(transport->read(nullptr, 0), 0);
    EXPECT_EQ(transport->write(nullptr, 0), 0);
    EXPECT_THAT(zephane.calls, IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, ReadsEndWithTheImageWithoutAComplaint) {
    connect();
    transport->seek(imageBytes - 5, absolute);
    EXPECT_EQ(read(9 * mebibyte), 5);
    EXPECT_EQ(position(), imageBytes);
    EXPECT_EQ(read(1), 0);
    EXPECT_EQ(position(), imageBytes);
    EXPECT_EQ(zephane.calls.size(), 4U) << "no piece is asked for behind one that falls short";
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, WritesEndWithTheImageAndThereIsNoRoomBehindIt) {
    connect();
    transport->seek(imageBytes - piece - 5, absolute);
    EXPECT_EQ(write(9 * mebibyte), piece + 5);
    EXPECT_EQ(position(), imageBytes);
    EXPECT_EQ(zephane.calls.size(), 4U);
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(write(1), 0);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(position(), imageBytes);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{error, "Couldn't write 1 to zephane client. code: -28 message: the "
                                        "image ends here"}));
}

TEST_F(ZephaneFTPTransportTest, PieceThatFallsShortEndsTheCall) {
    connect();
    zephane.script("read", {{.result = piece}, {.result = 512}});
    EXPECT_EQ(read(9 * mebibyte), piece + 512);
    EXPECT_EQ(position(), piece + 512);
    transport->seek(0, absolute);
    zephane.script("write", {{.result = piece}, {.result = 512}});
    EXPECT_EQ(write(9 * mebibyte), piece + 512);
    EXPECT_EQ(position(), piece + 512);
    EXPECT_EQ(zephane.calls.size(), 8U);
    EXPECT_THAT(log.lines(), IsEmpty()) << "the code was 0";
}

TEST_F(ZephaneFTPTransportTest, FailedReadIsToldWithWhatWasReadBeforeIt) {
    connect();
    for (const std::int64_t done : {0, 512}) {
        SCOPED_TRACE(done);
        forget();
        transport->seek(0, absolute);
        zephane.script("read", {{.result = piece}, {.code = -5, .text = "a disk\nhas gone", .result = done}});
        EXPECT_EQ(read(6 * mebibyte), piece + done);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(position(), piece + done);
        EXPECT_EQ(zephane.calls.size(), 4U);
        EXPECT_THAT(log.lines(),
                    ElementsAre(Line{error, "Couldn't read 2097152 from zephane client. code: -5 "
                                            "message: a disk\\nhas gone"}));
    }
}

TEST_F(ZephaneFTPTransportTest, FailedWriteIsToldWithWhatWasWrittenBeforeIt) {
    connect();
    for (const std::int64_t done : {0, 512}) {
        SCOPED_TRACE(done);
        forget();
        transport->seek(0, absolute);
        zephane.script("write", {{.result = piece}, {.code = -110, .text = "too late", .result = done}});
        EXPECT_EQ(write(6 * mebibyte), piece + done);
        EXPECT_EQ(errno, EIO);
        EXPECT_EQ(position(), piece + done);
        EXPECT_EQ(zephane.calls.size(), 4U);
        EXPECT_THAT(log.lines(),
                    ElementsAre(Line{error, "Couldn't write 2097152 to zephane client. code: -110 "
                                            "message: too late"}));
    }
}

TEST_F(ZephaneFTPTransportTest, FailureOfAWholePieceIsLoggedAndTheCallGoesOn) {
    connect();
    zephane.script("read", {{.code = -5, .text = "late news", .result = piece}});
    EXPECT_EQ(read(piece + 1), piece + 1);
    EXPECT_EQ(position(), piece + 1);
    EXPECT_THAT(
        log.lines(),
        ElementsAre(Line{error, "Couldn't read 4194304 from zephane client. code: -5 message: late news"}));
}

TEST_F(ZephaneFTPTransportTest, CodesAreToldByErrnoAsFarAsTheInterfaceHasThem) {
    connect();
    for (const auto& [code, told] :
         std::vector<std::pair<int, int>>{{-EINVAL, EINVAL},
                                          {-ENOSPC, ENOSPC},
                                          {-ENOTCONN, ENOTCONN},
                                          {-EIO, EIO},
                                          {-ETIMEDOUT, EIO},
                                          {std::numeric_limits<int>::min(), EIO}}) {
        zephane.script("write", {{.code = code}});
        EXPECT_EQ(write(1), 0);
        EXPECT_EQ(errno, told) << code;
    }
}

/// After a failed or wrong seek, reading or writing would use the wrong place of the image.
TEST_F(ZephaneFTPTransportTest, ClientThatIsNotAtThePlaceIsLeftAlone) {
    connect(4096);
    for (const auto& [answer, told] : std::vector<std::pair<Answer, int>>{
             {{.code = -EINVAL, .result = -1}, EINVAL}, {{.result = 4095}, EIO}, {{.result = 0}, EIO}}) {
        SCOPED_TRACE(answer.result);
        forget();
        zephane.script("seek", {answer, answer, answer});
        EXPECT_EQ(read(1), -1);
        EXPECT_EQ(errno, told);
        EXPECT_EQ(write(1), -1);
        EXPECT_EQ(errno, told);
        errno = 0;
        EXPECT_FALSE(transport->punchHole(1));
        EXPECT_EQ(errno, told);
        EXPECT_EQ(position(), 0);
        EXPECT_THAT(zephane.calls, ElementsAre("seek 4096 0", "seek 4096 0", "seek 4096 0"));
        const std::string where = "4096 in remote target with size 10485760";
        EXPECT_THAT(log.lines(),
                    ElementsAre(Line{error, "ZephaneFTP read failed: Failed to seek to offset " + where},
                                Line{error, "ZephaneFTP write failed: Failed to seek to offset " + where},
                                Line{error, "ZephaneFTP hole punch failed: Failed to seek to " + where}));
    }
}

TEST_F(ZephaneFTPTransportTest, LaterPieceWithoutItsPlaceTakesOneFromTheCount) {
    connect();
    zephane.script("seek", {{.result = 0}, {.code = -EIO, .result = -1}});
    EXPECT_EQ(write(9 * mebibyte), piece - 1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(position(), piece);
    EXPECT_EQ(zephane.calls.size(), 3U);
}

TEST_F(ZephaneFTPTransportTest, PositionsBehindTheImageAreForTheClientToRefuse) {
    connect();
    transport->seek(imageBytes + 1, absolute);
    EXPECT_EQ(read(1), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(write(1), -1);
    EXPECT_FALSE(transport->punchHole(1));
    EXPECT_THAT(zephane.calls, ElementsAreArray(Calls(3, "seek 10485761 0")));
}

/// Adding to the offset must not wrap around to 0.
TEST_F(ZephaneFTPTransportTest, OffsetsThatLeadNowhereReachNoImage) {
    for (const auto& [offset, at] : std::vector<std::pair<std::uint64_t, std::int64_t>>{
             {largestId, 0}, {largestId - 4095, 8192}, {1ULL << 63U, 0}, {1, farthest}, {farthest, 4096}}) {
        connect(offset);
        transport->seek(at, absolute);
        EXPECT_EQ(write(4096), -1);
        EXPECT_EQ(read(4096), -1);
        EXPECT_FALSE(transport->punchHole(4096));
        EXPECT_THAT(zephane.calls, ElementsAreArray(Calls(3, "seek 9223372036854775807 0")));
        EXPECT_EQ(position(), at);
    }
    EXPECT_EQ(zephane.changes, 0);
}

// --- holes

TEST_F(ZephaneFTPTransportTest, HolesArePunchedInOnePieceAtTheirPlace) {
    connect(4096);
    transport->seek(4096, absolute);
    EXPECT_TRUE(transport->punchHole(9 * mebibyte));
    EXPECT_THAT(zephane.calls, ElementsAre("seek 8192 0", "punchHole 9437184"));
    EXPECT_EQ(position(), 4096 + 9 * mebibyte);
    EXPECT_EQ(imageFrom(8192, 9 * mebibyte), Bytes(9 * mebibyte));
    EXPECT_EQ(zephane.image[4096], 2);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ZephaneFTPTransportTest, HoleThatIsNoneMovesNothing) {
    connect();
    transport->seek(4096, absolute);
    for (const int code : {-5, 1, -26}) { // every code but 0
        forget();
        zephane.script("punchHole", {{.code = code, .text = "no holes\there"}});
        EXPECT_FALSE(transport->punchHole(8192));
        EXPECT_EQ(position(), 4096);
        EXPECT_THAT(log.lines(),
                    ElementsAre(Line{error, "Failed to hole punch 8192 via zephane client. code: " +
                                                std::to_string(code) + " message: no holes\\there"}));
    }
    EXPECT_EQ(zephane.changes, 0);
}

TEST_F(ZephaneFTPTransportTest, HolesAreSupportedConnectedOrNot) {
    EXPECT_TRUE(transport->supportsHolePunching());
    connect();
    EXPECT_TRUE(transport->supportsHolePunching());
    transport->disconnect();
    EXPECT_TRUE(transport->supportsHolePunching());
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
