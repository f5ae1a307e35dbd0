#include "support/NbdkitProcess.h"
#include "support/TestDirectory.h"
#include "support/ZephaneClients.h"
#include "support/ZephaneTestServer.h"
#include "zephane/nbd/NbdImage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

namespace zephane {
namespace {

using test::makeClient;
using test::NbdkitProcess;
using test::NetworkFault;
using test::randomBytes;
using test::ZephaneTestNetwork;
using test::ZephaneTestServer;
using testing::HasSubstr;

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

constexpr std::uint64_t compare = wire::compareFlag | wire::writableFlag;
/// Long enough for a busy machine, and short for a test.
constexpr ClientPatience impatience{500ms, 500ms};

Status write(ZephaneFTPClient& client, const Bytes& data) {
    Status status;
    const std::int64_t count = client.write(data.data(), data.size(), 0, status);
    EXPECT_EQ(count == static_cast<std::int64_t>(data.size()), status.code == 0);
    return status;
}

Status read(ZephaneFTPClient& client, Bytes& data) {
    Status status;
    client.read(data.data(), data.size(), status);
    return status;
}

/// Every later call returns the failure that ended the client.
void expectBroken(ZephaneFTPClient& client, const Status& failure) {
    EXPECT_LT(failure.code, 0);
    Bytes byte(1);
    EXPECT_EQ(write(client, byte).text, failure.text);
    EXPECT_EQ(read(client, byte).text, failure.text);
    EXPECT_EQ(client.punchHole(1).text, failure.text);
    EXPECT_EQ(client.close().text, failure.text);
    EXPECT_EQ(client.close().code, failure.code);
    EXPECT_EQ(client.seek(0, 0), -1);
    EXPECT_EQ(errno, EIO);
}

/// An image of 1 MiB whose NBD server fails requests while a file exists.
class FailingEngine {
public:
    explicit FailingEngine(const std::vector<std::string>& errors) : engine(arguments(errors)) {}

    void fail() { agent::test::writeFile(switchFile, ""); }
    void work() { std::filesystem::remove(std::string(switchFile)); }
    [[nodiscard]] std::string socket() const { return engine.socket(); }

private:
    std::vector<std::string> arguments(const std::vector<std::string>& errors) {
        std::vector<std::string> all{"--filter=error", "memory", "1M"};
        all.insert(all.end(), errors.begin(), errors.end());
        all.push_back("error-file=" + std::string(switchFile));
        return all;
    }

    agent::test::TestDirectory directory;
    agent::Path switchFile = directory / "fails";
    NbdkitProcess engine;
};

TEST(ZephaneFTPFault, AWriteThatFailsIsToldAndNoMore) {
    FailingEngine engine{{"error-pwrite=ENOSPC", "error-pwrite-rate=100%"}};
    const ZephaneTestServer server{engine.socket()};
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    engine.fail();
    const Bytes data(4096, 1);
    const Status status = write(client, data);
    EXPECT_EQ(status.code, -ENOSPC);
    EXPECT_THAT(status.text, HasSubstr("cannot write 4096 bytes at 0"));
    engine.work();
    EXPECT_EQ(write(client, data).code, 0); // the same range as before
    EXPECT_EQ(client.close().code, 0);
    Bytes stored(4096);
    NbdImage(engine.socket()).read(stored, 0);
    EXPECT_TRUE(stored == data);
}

TEST(ZephaneFTPFault, AReadThatFailsIsToldAndNoMore) {
    FailingEngine engine{{"error-pread=EIO", "error-pread-rate=100%"}};
    const ZephaneTestServer server{engine.socket()};
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    engine.fail();
    Bytes data(4096);
    EXPECT_EQ(read(client, data).code, -EIO);
    engine.work();
    EXPECT_EQ(read(client, data).code, 0);
    EXPECT_EQ(client.close().code, 0);
}

TEST(ZephaneFTPFault, AHoleThatFailsIsToldOnceByWhatComesNext) {
    FailingEngine engine{{"error-zero=EIO", "error-zero-rate=100%"}};
    const ZephaneTestServer server{engine.socket()};
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    engine.fail();
    Bytes data(4096, 1);
    EXPECT_EQ(client.punchHole(4096).code, 0);
    EXPECT_EQ(client.punchHole(4096).code, 0);
    EXPECT_EQ(write(client, data).code, -EIO);
    EXPECT_EQ(write(client, data).code, 0);
    EXPECT_EQ(client.punchHole(4096).code, 0);
    EXPECT_EQ(read(client, data).code, -EIO);
    EXPECT_EQ(read(client, data).code, 0);
    EXPECT_EQ(client.punchHole(4096).code, 0);
    EXPECT_EQ(client.close().code, -EIO);
    EXPECT_EQ(client.close().code, Status::alreadyClosed);
}

TEST(ZephaneFTPFault, WhatCouldNotBeStoredStaysUnstored) {
    const NbdkitProcess engine{{"eval", "get_size=echo 1048576", "pread=head -c $3 /dev/zero",
                                "pwrite=cat >/dev/null", "flush=echo EIO a disk has gone >&2; exit 1"}};
    const ZephaneTestServer server{engine.socket()};
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    Bytes data(4096);
    EXPECT_EQ(read(client, data).code, 0); // nothing has been written yet
    EXPECT_EQ(write(client, data).code, 0);
    EXPECT_EQ(read(client, data).code, -EIO);
    EXPECT_EQ(client.close().code, -EIO);
    EXPECT_EQ(client.close().code, -EIO);
}

TEST(ZephaneFTPFault, AnEngineThatDiesEndsTheClient) {
    NbdkitProcess engine{{"memory", "1M"}};
    const ZephaneTestServer server{engine.socket()};
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    ASSERT_EQ(write(client, Bytes(4096, 1)).code, 0);
    engine.kill();
    expectBroken(client, write(client, Bytes(4096, 1)));
}

TEST(ZephaneFTPFault, AnEngineThatDiesBeforeItHasStoredFailsClosing) {
    NbdkitProcess engine{{"memory", "1M"}};
    const ZephaneTestServer server{engine.socket()};
    ZephaneFTPClient client = makeClient({.port = server.port()});
    ASSERT_EQ(client.open().code, 0);
    ASSERT_EQ(write(client, Bytes(4096, 1)).code, 0);
    engine.kill();
    expectBroken(client, client.close());
}

TEST(ZephaneFTPFault, ASlowEngineEndsTheClientInTime) {
    const NbdkitProcess engine{{"--filter=delay", "memory", "1M", "wdelay=30"}};
    const ZephaneTestServer server{engine.socket()};
    ZephaneFTPClient client = makeClient({.port = server.port(), .patience = {20s, 300ms}});
    ASSERT_EQ(client.open().code, 0);
    const Status status = write(client, Bytes(4096, 1));
    EXPECT_EQ(status.code, -ETIMEDOUT);
    expectBroken(client, status);
}

TEST(ZephaneFTPFault, ADigestThatFailsIsNeverTakenForEqual) {
    const NbdkitProcess engine{{"memory", "1M"}};
    const ZephaneTestServer server{engine.socket(), {.digestCode = -EIO}};
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = compare});
    ASSERT_EQ(client.open().code, 0);
    EXPECT_EQ(write(client, Bytes(4096)).code, -EIO);
    EXPECT_EQ(write(client, Bytes(4096)).code, -EIO); // the connection is still usable
    EXPECT_EQ(server.digestRequests(), 2);
    EXPECT_EQ(client.close().code, 0);
}

TEST(ZephaneFTPFault, AComparisonThatCannotReadIsNeverTakenForEqual) {
    FailingEngine engine{{"error-pread=EIO", "error-pread-rate=100%"}};
    const ZephaneTestServer server{engine.socket(), {.grants = wire::writableFlag}};
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = compare});
    ASSERT_EQ(client.open().code, 0);
    engine.fail();
    EXPECT_EQ(write(client, Bytes(4096)).code, -EIO);
}

TEST(ZephaneFTPFault, DigestsOfAnotherRangeEndTheClient) {
    const NbdkitProcess engine{{"memory", "1M"}};
    const ZephaneTestServer server{engine.socket(), {.dropsLastDigest = true}};
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = compare});
    ASSERT_EQ(client.open().code, 0);
    const Status status = write(client, Bytes(3 * wire::digestUnit));
    EXPECT_EQ(status.code, -EPROTO);
    expectBroken(client, status);
}

TEST(ZephaneFTPFault, AServerThatKeepsItsDigestsEndsTheClientInTime) {
    const NbdkitProcess engine{{"memory", "1M"}};
    const ZephaneTestServer server{engine.socket(), {.answersDigests = false}};
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = compare, .patience = {20s, 300ms}});
    ASSERT_EQ(client.open().code, 0);
    const Status status = write(client, Bytes(4096));
    EXPECT_EQ(status.code, -ETIMEDOUT);
    expectBroken(client, status);
}

TEST(ZephaneFTPFault, AnAnswerThatNobodyAskedForEndsTheClient) {
    const NbdkitProcess engine{{"memory", "1M"}};
    const ZephaneTestServer server{engine.socket(), {.sendsUnrequestedAnswer = true}};
    ZephaneFTPClient client = makeClient({.port = server.port(), .flags = compare});
    const Status opened = client.open();
    const Status status = opened.code == 0 ? write(client, Bytes(4096)) : opened;
    EXPECT_EQ(status.code, -EPROTO);
    EXPECT_THAT(status.text, HasSubstr("nobody has asked"));
}

TEST(ZephaneFTPFault, NobodyThereFailsAtOnce) {
    std::uint16_t port = 0;
    {
        const ZephaneTestServer server{"/nonexistent"};
        port = server.port();
    }
    const Status status = makeClient({.port = port}).open();
    EXPECT_EQ(status.code, -ECONNREFUSED);
    EXPECT_THAT(status.text, HasSubstr("cannot connect"));
}

/// The name of the first call that fails in a small backup.
std::string backUp(ZephaneFTPClient& client, const Bytes& data) {
    if (client.open().code != 0) {
        return "open";
    }
    if (const Status status = write(client, data); status.code != 0) {
        expectBroken(client, status);
        return "write";
    }
    if (client.punchHole(4096).code != 0) {
        return "hole";
    }
    client.seek(0, 0);
    Bytes back(data.size());
    if (const Status status = read(client, back); status.code != 0) {
        expectBroken(client, status);
        return "read";
    }
    EXPECT_TRUE(back == data);
    return client.close().code != 0 ? "close" : "nothing";
}

/// Byte counts after which the fault occurs: the first ones are within the handshakes, the last ones are
/// after all data.
using Places = std::vector<std::size_t>;
const Places everywhere{0,    100,  250,  400,  550,   700,   850,   1000,   1150,
                        1300, 1500, 2000, 9000, 40000, 66000, 70000, 1000000};
/// Fewer of them, since each one takes time.
const Places atAFew{0, 250, 550, 850, 1150, 1500, 40000};

/// Runs a backup for each of these faults. Returns the names of the calls that failed.
std::set<std::string> backUpOver(const Places& places, NetworkFault fault, ClientPatience patience) {
    const NbdkitProcess engine{{"memory", "1M"}};
    const ZephaneTestServer server{engine.socket()};
    std::set<std::string> failed;
    unsigned seed = 0;
    for (const std::size_t place : places) {
        fault.afterBytes = place;
        const ZephaneTestNetwork network{server.port(), fault};
        const Bytes data = randomBytes(wire::digestUnit, ++seed);
        const auto begin = std::chrono::steady_clock::now();
        {
            ZephaneFTPClient client = makeClient({.port = network.port(), .patience = patience});
            failed.insert(backUp(client, data));
        }
        EXPECT_LT(std::chrono::steady_clock::now() - begin, patience.opening + 3 * patience.answering);
        if (failed.contains("nothing")) {
            Bytes stored(data.size());
            NbdImage(engine.socket()).read(stored, 0);
            EXPECT_TRUE(stored == data) << place;
            failed.erase("nothing");
            failed.insert("none after " + std::to_string(place));
        }
    }
    return failed;
}

TEST(ZephaneFTPFault, AConnectionThatIsCutAnywhereIsNeverTakenForABackup) {
    const auto failed = backUpOver(everywhere, {.isToClient = false}, {20s, 60s});
    EXPECT_TRUE(failed.contains("open") && failed.contains("write"));
    EXPECT_TRUE(failed.contains("none after 1000000"));
}

TEST(ZephaneFTPFault, AnswersThatAreCutAnywhereAreNeverTakenForABackup) {
    const auto failed = backUpOver(everywhere, {.isToClient = true}, {20s, 60s});
    EXPECT_TRUE(failed.contains("open") && failed.contains("read"));
    EXPECT_TRUE(failed.contains("none after 1000000"));
}

TEST(ZephaneFTPFault, SilenceAnywhereEndsTheClientInTime) {
    const auto failed = backUpOver(atAFew, {.isToClient = false, .isSilent = true}, impatience);
    EXPECT_TRUE(failed.contains("open") && failed.contains("write"));
}

TEST(ZephaneFTPFault, AnswersThatStayAwayAnywhereEndTheClientInTime) {
    const auto failed = backUpOver(atAFew, {.isToClient = true, .isSilent = true}, impatience);
    EXPECT_TRUE(failed.contains("open") && failed.contains("read"));
}

} // namespace
} // namespace zephane
