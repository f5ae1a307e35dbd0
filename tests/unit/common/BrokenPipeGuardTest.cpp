#include "common/BrokenPipeGuard.h"

#include "os/FileDescriptor.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <unistd.h>

namespace agent {
namespace {

int brokenPipes = 0;

void countBrokenPipe(int /*signal*/) {
    ++brokenPipes;
}

class BrokenPipe : public testing::Test {
protected:
    void SetUp() override {
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe(ends.data()), 0);
        ::close(ends[0]);
        writeEnd = os::FileDescriptor(ends[1]);
        brokenPipes = 0;
        previous = std::signal(SIGPIPE, &countBrokenPipe);
    }
    void TearDown() override { std::signal(SIGPIPE, previous); }

    os::FileDescriptor writeEnd;
    void (*previous)(int) = SIG_DFL;
};

TEST_F(BrokenPipe, ReachesTheProcessWithoutTheGuard) {
    EXPECT_EQ(::write(writeEnd.get(), "x", 1), -1);
    EXPECT_EQ(brokenPipes, 1);
}

TEST_F(BrokenPipe, IsSwallowedByTheGuard) {
    {
        const BrokenPipeGuard guard;
        EXPECT_EQ(::write(writeEnd.get(), "x", 1), -1);
        EXPECT_EQ(errno, EPIPE);
    }
    EXPECT_EQ(brokenPipes, 0);
    EXPECT_EQ(::write(writeEnd.get(), "x", 1), -1);
    EXPECT_EQ(brokenPipes, 1);
}

TEST_F(BrokenPipe, OneThatWasPendingBeforeIsNotLost) {
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);
    ::raise(SIGPIPE);
    {
        const BrokenPipeGuard guard;
    }
    EXPECT_EQ(brokenPipes, 0);
    pthread_sigmask(SIG_UNBLOCK, &blocked, nullptr);
    EXPECT_EQ(brokenPipes, 1);
}

} // namespace
} // namespace agent
