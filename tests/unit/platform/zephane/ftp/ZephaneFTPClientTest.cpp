#include "support/NbdkitProcess.h"
#include "support/Waiting.h"
#include "support/ZephaneClients.h"
#include "support/ZephaneTestServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

namespace zephane {
namespace {

using test::ClientParameters;
using test::makeClient;
using test::NbdkitProcess;
using test::randomBytes;
using test::ServerBehavior;
using test::ZephaneTestServer;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Bytes = std::vector<std::uint8_t>;

constexpr std::uint64_t compare = wire::compareFlag | wire::writableFlag;
constexpr std::uint64_t compress = wire::compressionFlag | wire::writableFlag;
constexpr std::size_t unit = wire::digestUnit;

void writeAt(ZephaneFTPClient& client, std::uint64_t position, const Bytes& data) {
    Status status;
    ASSERT_EQ(client.seek(static_cast<std::int64_t>(position), 0), position);
    ASSERT_EQ(client.write(data.data(), data.size(), 0, status), data.size()) << status.text;
    ASSERT_EQ(status.code, 0) << status.text;
}

Bytes readAt(ZephaneFTPClient& client, std::uint64_t position, std::size_t length) {
    Bytes data(length, 0xEE);
    Status status;
    EXPECT_EQ(client.seek(static_cast<std::int64_t>(position), 0), position);
    const std::int64_t count = client.read(data.data(), data.size(), status);
    EXPECT_EQ(status.code, 0) << status.text;
    data.resize(static_cast<std::size_t>(count));
    return data;
}

std::ptrdiff_t threads() {
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return std::distance(begin(tasks), end(tasks));
}

/// The image has 64 MiB of zeros.
class ZephaneFTPClientTest : public testing::Test {
protected:
    NbdkitProcess engine{{"memory", "64M"}};
    ZephaneTestServer server{engine.socket()};
};

class EachWayToWrite : public ZephaneFTPClientTest, public testing::WithParamInterface<std::uint64_t> {};

TEST_P(EachWayToWrite, ReadsBackWhatWasWritten) {
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = GetParam()});
    ASSERT_EQ(client.open().code, 0);
    EXPECT_EQ(client.size(), 64 * wire::mebibyte);
    const Bytes data = randomBytes(5 * wire::mebibyte + 777, 1);
    writeAt(client, 4096, data);
    EXPECT_TRUE(readAt(client, 4096, data.size()) == data);
    EXPECT_THAT(readAt(client, 4095, 1), ElementsAre(0));
    EXPECT_EQ(client.close().code, 0);
    EXPECT_EQ(client.close().code, Status::alreadyClosed);
}

TEST_P(EachWayToWrite, KeepsWhatItWritesOverOtherContent) {
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = GetParam()});
    ASSERT_EQ(client.open().code, 0);
    Bytes data = randomBytes(3 * unit + 5, 2);
    writeAt(client, 0, data);
    data[unit + 1] ^= 1U;
    data.back() ^= 1U;
    writeAt(client, 0, data);
    EXPECT_TRUE(readAt(client, 0, data.size()) == data);
    EXPECT_EQ(client.close().code, 0);
}

INSTANTIATE_TEST_SUITE_P(Flags, EachWayToWrite,
                         testing::Values(wire::writableFlag, compress, compare, compare | compress));

TEST_F(ZephaneFTPClientTest, StoresWhatWasWrittenBeforeItIsReadBack) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    writeAt(client, 0, Bytes(4096, 1));
    readAt(client, 65536, 4096);
    readAt(client, 0, 4096);
    EXPECT_EQ(client.close().code, 0);
    EXPECT_THAT(engine.requests(),
                ElementsAre("Write 0x0 0x1000", "Flush", "Read 0x10000 0x1000", "Read 0x0 0x1000"));
}

TEST_F(ZephaneFTPClientTest, StoresWhatWasWrittenBeforeItCloses) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    writeAt(client, 0, Bytes(4096, 1));
    ASSERT_EQ(client.punchHole(8192).code, 0);
    EXPECT_EQ(client.close().code, 0);
    EXPECT_THAT(engine.requests(), ElementsAre("Write 0x0 0x1000", "Zero 0x1000 0x2000", "Flush"));
}

TEST_F(ZephaneFTPClientTest, StoresInBetweenSoThatNoFlushTakesLong) {
    const NbdkitProcess large{{"null", "1G"}};
    const ZephaneTestServer door{large.socket()};
    ZephaneFTPClient client = makeClient({.port = door.port(), .flags = compress});
    ASSERT_EQ(client.open().code, 0);
    const Bytes data(64 * wire::mebibyte);
    for (std::uint64_t done = 0; done < 512 * wire::mebibyte; done += data.size()) {
        EXPECT_THAT(large.requests(), testing::Not(testing::Contains("Flush")));
        writeAt(client, done, data);
    }
    EXPECT_EQ(large.requests().back(), "Flush");
}

TEST_F(ZephaneFTPClientTest, HolesReadAsZeros) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    const Bytes data = randomBytes(3 * unit, 3);
    writeAt(client, 0, data);
    ASSERT_EQ(client.seek(unit, 0), unit);
    ASSERT_EQ(client.punchHole(unit).code, 0);
    writeAt(client, 3 * unit, data); // written after the hole, which has moved the position
    EXPECT_TRUE(readAt(client, unit, unit) == Bytes(unit));
    EXPECT_TRUE(readAt(client, 0, unit) == Bytes(data.begin(), data.begin() + unit));
    EXPECT_TRUE(readAt(client, 3 * unit, 3 * unit) == data);
}

TEST_F(ZephaneFTPClientTest, AHoleMovesThePosition) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    Status status;
    const Bytes data(4096, 9);
    ASSERT_EQ(client.punchHole(unit).code, 0);
    ASSERT_EQ(client.write(data.data(), data.size(), 0, status), data.size());
    EXPECT_TRUE(readAt(client, unit, data.size()) == data);
}

TEST_F(ZephaneFTPClientTest, AHoleBehindTheEndIsRefusedAndMovesNothing) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    ASSERT_EQ(client.seek(static_cast<std::int64_t>(client.size() - 10), 0), client.size() - 10);
    EXPECT_EQ(client.punchHole(11).code, -EINVAL);
    EXPECT_EQ(client.punchHole(~std::uint64_t{0}).code, -EINVAL);
    Bytes rest(20);
    Status status;
    EXPECT_EQ(client.read(rest.data(), rest.size(), status), 10);
    EXPECT_THAT(engine.requests(), testing::SizeIs(1));
}

TEST_F(ZephaneFTPClientTest, ReadsAndWritesUpToTheEnd) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    const auto end = static_cast<std::int64_t>(client.size());
    Bytes data(100, 7);
    Status status;
    ASSERT_EQ(client.seek(end - 60, 0), end - 60);
    EXPECT_EQ(client.write(data.data(), data.size(), 0, status), 60);
    EXPECT_EQ(status.code, 0);
    EXPECT_EQ(client.write(data.data(), data.size(), 0, status), 0);
    EXPECT_EQ(status.code, -ENOSPC);
    EXPECT_EQ(client.read(data.data(), data.size(), status), 0);
    EXPECT_EQ(status.code, 0);
    ASSERT_EQ(client.seek(end - 60, 0), end - 60);
    EXPECT_EQ(client.read(data.data(), data.size(), status), 60);
    EXPECT_EQ(status.code, 0);
}

TEST_F(ZephaneFTPClientTest, NothingIsSentForNothing) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    Status status;
    EXPECT_EQ(client.read(nullptr, 0, status), 0);
    EXPECT_EQ(status.code, 0);
    EXPECT_EQ(client.write(nullptr, 0, 0, status), 0);
    EXPECT_EQ(status.code, 0);
    EXPECT_EQ(client.punchHole(0).code, 0);
    EXPECT_EQ(client.close().code, 0);
    EXPECT_THAT(engine.requests(), IsEmpty());
}

TEST_F(ZephaneFTPClientTest, SeeksWithinTheImageOnly) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.seek(0, 0), -1);
    EXPECT_EQ(errno, ENOTCONN);
    EXPECT_EQ(client.size(), 0);
    ASSERT_EQ(client.open().code, 0);
    const auto end = static_cast<std::int64_t>(client.size());
    EXPECT_EQ(client.seek(end, 0), end);
    for (const auto& [position, whence] :
         {std::pair(end + 1, 0), std::pair(std::int64_t{-1}, 0), std::pair(std::int64_t{0}, 1)}) {
        errno = 0;
        EXPECT_EQ(client.seek(position, whence), -1);
        EXPECT_EQ(errno, EINVAL);
    }
}

TEST_F(ZephaneFTPClientTest, ThereAreNoOptionsOfWriting) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    Status status;
    EXPECT_EQ(client.write("x", 1, 1, status), 0);
    EXPECT_EQ(status.code, -EINVAL);
}

TEST_F(ZephaneFTPClientTest, IsOpenedOnce) {
    ZephaneFTPClient client = makeClient({.port = server.port()});
    EXPECT_EQ(client.close().code, Status::alreadyClosed);
    ASSERT_EQ(client.open().code, 0);
    EXPECT_EQ(client.open().code, -EALREADY);
    writeAt(client, 0, Bytes(1, 1));
    EXPECT_EQ(client.close().code, 0);
    EXPECT_EQ(client.open().code, -EALREADY);
    EXPECT_EQ(client.seek(0, 0), -1);
}

TEST_F(ZephaneFTPClientTest, MovesWithItsConnection) {
    const auto before = threads();
    {
        ZephaneFTPClient first = makeClient({.port = server.port()});
        ASSERT_EQ(first.open().code, 0);
        ZephaneFTPClient second = std::move(first);
        writeAt(second, 0, Bytes(4096, 5));
        ZephaneFTPClient third = makeClient({.port = server.port()});
        ASSERT_EQ(third.open().code, 0);
        third = std::move(second);
        EXPECT_TRUE(readAt(third, 0, 4096) == Bytes(4096, 5));
        // NOLINTBEGIN(bugprone-use-after-move): that is what is looked at
        Status status;
        EXPECT_EQ(second.open().code, -ENOTCONN);
        EXPECT_EQ(second.seek(0, 0), -1);
        EXPECT_EQ(second.read(nullptr, 0, status), 0);
        EXPECT_EQ(status.code, -ENOTCONN);
        EXPECT_EQ(second.write(nullptr, 0, 0, status), 0);
        EXPECT_EQ(status.code, -ENOTCONN);
        EXPECT_EQ(second.punchHole(0).code, -ENOTCONN);
        EXPECT_EQ(second.size(), 0);
        EXPECT_EQ(second.close().code, Status::alreadyClosed);
        // NOLINTEND(bugprone-use-after-move)
    }
    EXPECT_EQ(threads(), before);
}

TEST_F(ZephaneFTPClientTest, ReadsWithoutBeingAllowedToWrite) {
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = 0});
    ASSERT_EQ(client.open().code, 0);
    Status status;
    EXPECT_EQ(client.write("x", 1, 0, status), 0);
    EXPECT_EQ(status.code, -EROFS);
    EXPECT_EQ(client.punchHole(1).code, -EROFS);
    EXPECT_TRUE(readAt(client, 0, 512) == Bytes(512));
    EXPECT_EQ(client.close().code, 0);
    EXPECT_THAT(engine.requests(), ElementsAre("Read 0x0 0x200"));
}

TEST_F(ZephaneFTPClientTest, DoesNotOpenWhatItCannotWriteTo) {
    const NbdkitProcess readOnly{{"-r", "memory", "1M"}};
    const ZephaneTestServer first{readOnly.socket()};
    EXPECT_EQ(makeClient({.port = first.port()}).open().code, -EROFS);
    EXPECT_EQ(makeClient({.port = first.port(), .flags = 0}).open().code, 0);
    const ZephaneTestServer second{engine.socket(), {.grants = 0}};
    EXPECT_EQ(makeClient({.port = second.port()}).open().code, -EROFS);
}

TEST_F(ZephaneFTPClientTest, TellsWhyTheServerRefuses) {
    const Status wrong = makeClient({.port = server.port(), .secret = "another secret"}).open();
    EXPECT_EQ(wrong.code, -EACCES);
    EXPECT_EQ(wrong.text, "the server refused: not for you");
    const ZephaneTestServer busy{engine.socket(), {.refusal = -EBUSY}};
    EXPECT_EQ(makeClient({.port = busy.port()}).open().code, -EBUSY);
}

TEST_F(ZephaneFTPClientTest, DoesNotOpenWithoutWhatItNeeds) {
    EXPECT_EQ(makeClient({.port = server.port(), .secret = ""}).open().code, -EINVAL);
    EXPECT_EQ(makeClient({.port = server.port(), .flags = 4}).open().code, -EINVAL);
    EXPECT_EQ(ZephaneFTPClient(nullptr, "127.0.0.1", server.port(), "image", 7, 8, "a secret").open().code,
              -EINVAL);
    const Status status = makeClient({.port = server.port(), .flags = compress, .hasFilters = false}).open();
    EXPECT_EQ(status.code, -EINVAL);
    EXPECT_THAT(status.text, HasSubstr("no filters"));
}

TEST_F(ZephaneFTPClientTest, DoesNotCompressUnlessTheServerDoes) {
    const ZephaneTestServer plain{engine.socket(), {.grants = wire::writableFlag}};
    ZephaneFTPClient client = makeClient({.port = plain.port(), .flags = compress});
    ASSERT_EQ(client.open().code, 0);
    writeAt(client, 0, Bytes(4096, 3));
    EXPECT_TRUE(readAt(client, 0, 4096) == Bytes(4096, 3));
}

TEST_F(ZephaneFTPClientTest, FindsAServerByItsName) {
    EXPECT_EQ(makeClient({.port = server.port(), .host = "localhost"}).open().code, 0);
}

TEST_F(ZephaneFTPClientTest, AllClientsOfAProcessAreOne) {
    ZephaneFTPClient first = makeClient({.port = server.port()});
    ASSERT_EQ(first.open().code, 0);
    const wire::ClientId id = server.lastClient();
    ZephaneFTPClient second = makeClient({.port = server.port()});
    ASSERT_EQ(second.open().code, 0);
    EXPECT_EQ(server.lastClient(), id);
    EXPECT_NE(id, wire::ClientId{});
}

TEST_F(ZephaneFTPClientTest, WritesOnlyWhatDiffersByItsDigest) {
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = compare});
    ASSERT_EQ(client.open().code, 0);
    Bytes data = randomBytes(6 * unit + 10, 4);
    writeAt(client, 0, data);
    data[2 * unit] ^= 1U;
    data[3 * unit] ^= 1U;
    data.back() ^= 1U;
    writeAt(client, 0, data);
    writeAt(client, 0, data);
    EXPECT_EQ(server.digestRequests(), 3);
    // The server reads over a connection of its own, so the client flushes before it asks for digests.
    EXPECT_THAT(engine.requests(),
                ElementsAre("Read 0x0 0x6000a", "Write 0x0 0x6000a", "Flush", "Read 0x0 0x6000a",
                            "Write 0x20000 0x20000", "Write 0x60000 0xa", "Flush", "Read 0x0 0x6000a"));
}

TEST_F(ZephaneFTPClientTest, WritesOnlyWhatDiffersFromWhatItReads) {
    const ZephaneTestServer plain{engine.socket(), {.grants = wire::writableFlag}};
    ZephaneFTPClient client = makeClient({.port = plain.port(), .flags = compare});
    ASSERT_EQ(client.open().code, 0);
    Bytes data = randomBytes(4 * unit, 5);
    writeAt(client, 0, data);
    data[2 * unit] ^= 1U;
    writeAt(client, 0, data);
    EXPECT_EQ(plain.digestRequests(), 0);
    EXPECT_THAT(engine.requests(), ElementsAre("Read 0x0 0x40000", "Write 0x0 0x40000", "Read 0x0 0x40000",
                                               "Write 0x20000 0x10000"));
}

TEST_F(ZephaneFTPClientTest, ComparesLongWritesInPieces) {
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = compare});
    ASSERT_EQ(client.open().code, 0);
    writeAt(client, 0, Bytes(2 * wire::digestRange + 1)); // equal to the image
    EXPECT_EQ(server.digestRequests(), 3);
    EXPECT_EQ(client.close().code, 0);
    EXPECT_THAT(engine.requests(), testing::Each(testing::StartsWith("Read")));
}

} // namespace
} // namespace zephane
