#include "zephane/nbd/NbdImage.h"

#include "os/FileDescriptor.h"
#include "support/NbdkitProcess.h"
#include "support/TestDirectory.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <functional>
#include <sys/socket.h>
#include <sys/stat.h>

namespace zephane {
namespace {

using test::NbdkitProcess;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

using Bytes = std::vector<std::uint8_t>;
using namespace std::chrono_literals;

constexpr std::uint64_t large = 40 * wire::mebibyte;
constexpr NbdPatience impatience{300ms, 300ms};

/// The errno with which `call` fails, or 0.
int errorOf(const std::function<void()>& call) {
    try {
        call();
        return 0;
    } catch (const NbdError& error) {
        return error.error;
    }
}

TEST(NbdImage, TellsWhatTheImageIs) {
    const NbdkitProcess engine{{"memory", "40M"}};
    const NbdImage image(engine.socket());
    EXPECT_EQ(image.size(), large);
    EXPECT_FALSE(image.isReadOnly());
    EXPECT_TRUE(image.isSharedByConnections());
    EXPECT_TRUE(image.isAlive());
    const NbdkitProcess other{{"-r", "--filter=multi-conn", "memory", "512", "multi-conn-mode=disable"}};
    const NbdImage readOnly(other.socket());
    EXPECT_EQ(readOnly.size(), 512);
    EXPECT_TRUE(readOnly.isReadOnly());
    EXPECT_FALSE(readOnly.isSharedByConnections());
}

TEST(NbdImage, ReadsBackWhatItHasWritten) {
    const NbdkitProcess engine{{"memory", "40M"}};
    NbdImage image(engine.socket());
    const Bytes data(wire::requestBytes, 0x5A);
    image.write(data, 3);
    image.write({}, 0);
    Bytes back(wire::requestBytes);
    image.read(back, 3);
    image.read({}, 0);
    EXPECT_TRUE(back == data);
    image.flush();
    EXPECT_THAT(engine.requests(), ElementsAre("Write 0x3 0x2000000", "Read 0x3 0x2000000", "Flush"));
}

TEST(NbdImage, HolesAreCutIntoRequestsAndReadAsZeros) {
    const NbdkitProcess engine{{"memory", "40M"}};
    NbdImage image(engine.socket());
    image.write(Bytes(4096, 1), 0);
    image.write(Bytes(4096, 1), large - 4096);
    image.queueHole(0, large);
    image.awaitHoles();
    Bytes back(4096, 1);
    image.read(back, large - 4096);
    EXPECT_THAT(back, Each(0));
    EXPECT_THAT(engine.requests(), testing::IsSupersetOf({"Zero 0x0 0x2000000", "Zero 0x2000000 0x800000"}))
        << "which the engine may begin in any order";
}

TEST(NbdImage, AHoleIsFreedOnTheEnginesDisk) {
    const agent::test::TestDirectory directory;
    const std::string file = directory / "image";
    agent::test::writeFile(file, std::string(wire::mebibyte, 'x'));
    const NbdkitProcess engine{{"file", file}};
    NbdImage image(engine.socket());
    image.flush();
    image.queueHole(0, wire::mebibyte);
    image.awaitHoles();
    image.flush();
    struct stat status{};
    ASSERT_EQ(::stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_blocks, 0);
    EXPECT_EQ(status.st_size, wire::mebibyte);
}

TEST(NbdImage, RangesAreCheckedBeforeAnythingIsSent) {
    const NbdkitProcess engine{{"memory", "40M"}};
    NbdImage image(engine.socket());
    Bytes data(wire::requestBytes + 1);
    const std::span<std::uint8_t> one = std::span(data).first(1);
    for (const std::uint64_t offset : {large, large + 1, ~std::uint64_t{0}}) {
        EXPECT_EQ(errorOf([&] { image.read(one, offset); }), EINVAL);
        EXPECT_EQ(errorOf([&] { image.write(one, offset); }), EINVAL);
        EXPECT_EQ(errorOf([&] { image.queueHole(offset, 1); }), EINVAL);
    }
    EXPECT_EQ(errorOf([&] { image.read(data, 0); }), EINVAL);
    EXPECT_EQ(errorOf([&] { image.write(data, 0); }), EINVAL);
    EXPECT_EQ(errorOf([&] { image.queueHole(1, ~std::uint64_t{0}); }), EINVAL);
    EXPECT_THAT(engine.requests(), SizeIs(0));
    image.end();
}

TEST(NbdImage, WritesNothingToAReadOnlyImage) {
    const NbdkitProcess engine{{"-r", "memory", "1M"}};
    NbdImage image(engine.socket());
    EXPECT_EQ(errorOf([&] { image.write(Bytes(1), 0); }), EROFS);
    EXPECT_EQ(errorOf([&] { image.queueHole(0, 1); }), EROFS);
    image.end();
}

TEST(NbdImage, AnErrorOfTheEngineLeavesTheConnection) {
    const NbdkitProcess engine{
        {"--filter=error", "memory", "1M", "error-pwrite=ENOSPC", "error-pwrite-rate=100%"}};
    NbdImage image(engine.socket());
    try {
        image.write(Bytes(512), 1024);
        ADD_FAILURE() << "written";
    } catch (const NbdError& error) {
        EXPECT_EQ(error.error, ENOSPC);
        EXPECT_THAT(error.what(), HasSubstr("cannot write 512 bytes at 1024"));
    }
    EXPECT_TRUE(image.isAlive());
    Bytes data(512);
    image.read(data, 0);
    image.end();
}

TEST(NbdImage, AHoleThatFailsIsToldOnce) {
    const NbdkitProcess engine{{"--filter=error", "memory", "1M", "error-zero=EIO", "error-zero-rate=100%"}};
    NbdImage image(engine.socket());
    for (int count = 0; count < 40; ++count) {
        image.queueHole(0, 4096);
    }
    EXPECT_EQ(errorOf([&] { image.awaitHoles(); }), EIO);
    EXPECT_EQ(errorOf([&] { image.awaitHoles(); }), 0);
    image.end();
}

TEST(NbdImage, SixteenHolesAreUnderWayAtOnce) {
    const NbdkitProcess engine{{"--filter=delay", "memory", "1M", "delay-zero=1"}};
    NbdImage image(engine.socket());
    for (int count = 0; count < 16; ++count) {
        image.queueHole(0, 4096);
    }
    // All requests are sent before the first one completes. The next call waits for that one.
    EXPECT_TRUE(agent::test::eventually([&] { return engine.requests().size() == 16; }));
    const auto begin = std::chrono::steady_clock::now();
    image.queueHole(0, 4096);
    EXPECT_GT(std::chrono::steady_clock::now() - begin, 100ms);
    image.awaitHoles();
    EXPECT_THAT(engine.requests(), SizeIs(17));
}

TEST(NbdImage, ALateAnswerEndsTheConnection) {
    const NbdkitProcess engine{{"--filter=delay", "memory", "1M", "rdelay=30"}};
    NbdImage image(engine.socket(), {60s, 300ms});
    Bytes data(512);
    EXPECT_EQ(errorOf([&] { image.read(data, 0); }), ETIMEDOUT);
    EXPECT_FALSE(image.isAlive());
    EXPECT_EQ(errorOf([&] { image.read(data, 0); }), ENOTCONN);
    EXPECT_EQ(errorOf([&] { image.write(data, 0); }), ENOTCONN);
    EXPECT_EQ(errorOf([&] { image.queueHole(0, 1); }), ENOTCONN);
    EXPECT_EQ(errorOf([&] { image.flush(); }), ENOTCONN);
    EXPECT_EQ(errorOf([&] { image.end(); }), ENOTCONN);
}

TEST(NbdImage, HolesThatAreNotAnsweredEndTheConnectionOnce) {
    const NbdkitProcess engine{{"--filter=delay", "memory", "1M", "delay-zero=30"}};
    NbdImage image(engine.socket(), {60s, 300ms});
    for (int count = 0; count < 5; ++count) {
        image.queueHole(0, 4096);
    }
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(errorOf([&] { image.awaitHoles(); }), ETIMEDOUT);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 5 * 300ms);
    EXPECT_FALSE(image.isAlive());
}

TEST(NbdImage, AnEngineThatDiesEndsTheConnection) {
    NbdkitProcess engine{{"memory", "1M"}};
    NbdImage image(engine.socket());
    engine.kill();
    Bytes data(512);
    EXPECT_NE(errorOf([&] { image.read(data, 0); }), 0);
    EXPECT_FALSE(image.isAlive());
    EXPECT_EQ(errorOf([&] { image.flush(); }), ENOTCONN);
}

TEST(NbdImage, NeedsSomebodyThere) {
    EXPECT_EQ(errorOf([] { NbdImage("/nonexistent"); }), ENOENT);
    EXPECT_NE(errorOf([] { NbdImage(std::string(200, 'x')); }), 0);
}

TEST(NbdImage, ASilentServerIsNotWaitedForForEver) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const os::FileDescriptor peer(ends[1]);
    EXPECT_EQ(errorOf([&] { NbdImage(ends[0], impatience); }), ETIMEDOUT);
}

TEST(NbdImage, AServerOfAnotherKindIsRefused) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    os::FileDescriptor peer(ends[1]);
    const Bytes nonsense(4096, 'x');
    ASSERT_EQ(::send(peer.get(), nonsense.data(), nonsense.size(), MSG_NOSIGNAL), nonsense.size());
    EXPECT_NE(errorOf([&] { NbdImage(ends[0], impatience); }), 0);
}

TEST(NbdImage, AServerThatHangsUpIsNotWaitedFor) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    os::FileDescriptor(ends[1]).reset();
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(errorOf([&] { NbdImage image(ends[0]); }), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, 30s);
}

TEST(NbdImage, AnEngineWithoutAFlushHasNothingToStoreLater) {
    const NbdkitProcess engine{
        {"eval", "get_size=echo 1048576", "pread=head -c $3 /dev/zero", "pwrite=cat >/dev/null"}};
    NbdImage image(engine.socket());
    image.write(Bytes(512), 0);
    image.flush();
    EXPECT_THAT(engine.requests(), ElementsAre("Write 0x0 0x200"));
}

TEST(NbdImage, CanBeMoved) {
    const NbdkitProcess engine{{"memory", "1M"}};
    NbdImage first(engine.socket());
    NbdImage second(std::move(first));
    first = std::move(second);
    first.write(Bytes(512, 1), 0);
    EXPECT_EQ(first.size(), wire::mebibyte);
    first.end();
    EXPECT_FALSE(first.isAlive());
}

} // namespace
} // namespace zephane
