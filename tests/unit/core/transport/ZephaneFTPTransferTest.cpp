#include "unit/core/transport/ZephaneFTPTransportFixture.h"

#include <gmock/gmock.h>

namespace agent::core {
namespace {

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

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

} // namespace
} // namespace agent::core
