#include "common/TerminationSignals.h"

#include <gtest/gtest.h>

#include <thread>

namespace agent {
namespace {

bool isBlocked(int signal) {
    sigset_t blocked;
    pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
    return sigismember(&blocked, signal) == 1;
}

class EachTerminationSignal : public testing::TestWithParam<int> {};

TEST_P(EachTerminationSignal, IsBlockedInScopeAndInThreadsMadeThere) {
    EXPECT_FALSE(isBlocked(GetParam()));
    bool inThread = false;
    {
        const TerminationSignalsBlocked guard;
        EXPECT_TRUE(isBlocked(GetParam()));
        std::thread([&] { inThread = isBlocked(GetParam()); }).join();
    }
    EXPECT_TRUE(inThread);
    EXPECT_FALSE(isBlocked(GetParam()));
}

TEST_P(EachTerminationSignal, CanBeBlockedForTheRestOfAThread) {
    bool after = false;
    bool before = true;
    std::thread([&] {
        const sigset_t previous = blockTerminationSignals();
        before = sigismember(&previous, GetParam()) == 1;
        after = isBlocked(GetParam());
    }).join();
    EXPECT_TRUE(after);
    EXPECT_FALSE(before);
}

INSTANTIATE_TEST_SUITE_P(All, EachTerminationSignal, testing::Values(SIGINT, SIGQUIT, SIGTERM, SIGHUP));

TEST(TerminationSignals, OtherSignalsStayOpen) {
    const TerminationSignalsBlocked guard;
    EXPECT_FALSE(isBlocked(SIGPIPE));
    EXPECT_FALSE(isBlocked(SIGSEGV));
}

} // namespace
} // namespace agent
