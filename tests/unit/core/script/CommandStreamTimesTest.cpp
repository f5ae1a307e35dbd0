#include "unit/core/script/CommandStreamFixture.h"

namespace agent::core::script {
namespace {

TEST_F(CommandStream, WaitTakesItsTimeOffWhatRemains) {
    UnixCommandStream stream("sleep 0.2; echo; exec sleep 1000", "", true);
    std::int64_t remaining = 20 * second;
    EXPECT_TRUE(stream.waitForOutput(remaining));
    EXPECT_LE(remaining, 20 * second - second / 10);
    EXPECT_GT(remaining, 0);
}

TEST_F(CommandStream, WaitEndsWithTheTime) {
    UnixCommandStream stream("exec sleep 1000", "", true);
    const auto begin = steady_clock::now();
    std::int64_t remaining = second / 5;
    EXPECT_FALSE(stream.waitForOutput(remaining));
    EXPECT_EQ(remaining, 0);
    EXPECT_GE(steady_clock::now() - begin, std::chrono::milliseconds(200));
    EXPECT_LT(steady_clock::now() - begin, generous);
}

TEST_F(CommandStream, NoTimeIsAPoll) {
    UnixCommandStream silent("exec sleep 1000", "", true);
    std::int64_t remaining = 0;
    EXPECT_FALSE(silent.waitForOutput(remaining));
    EXPECT_EQ(remaining, 0);
    UnixCommandStream ended("echo", "", true);
    awaitExit(ended);
    EXPECT_TRUE(ended.waitForOutput(remaining));
    EXPECT_EQ(remaining, 0);
}

TEST_F(CommandStream, TimeThatIsUsedUpCountsMoreThanOutput) {
    UnixCommandStream ended("echo", "", true);
    awaitExit(ended);
    std::int64_t remaining = -1;
    EXPECT_FALSE(ended.waitForOutput(remaining));
    EXPECT_EQ(remaining, 0);
}

TEST_F(CommandStream, FullStepIsFollowedByAnotherRead) {
    UnixCommandStream stream("printf '%0256d' 7; sleep 0.2; printf more", "", true);
    std::string out;
    EXPECT_TRUE(stream.readAvailable(out));
    EXPECT_EQ(out, std::string(255, '0') + "7more");
    EXPECT_FALSE(stream.readAvailable(out));
}

TEST_F(CommandStream, FullStepIsFollowedByAnotherReadWhileTimeRemains) {
    UnixCommandStream stream("printf '%0256d' 7; sleep 0.2; printf more", "", true);
    std::int64_t remaining = 20 * second;
    std::string out;
    EXPECT_TRUE(stream.waitForOutput(remaining));
    EXPECT_TRUE(stream.readAvailable(out));
    EXPECT_EQ(out, std::string(255, '0') + "7more");
}

TEST_F(CommandStream, FullStepIsFollowedByTheEnd) {
    UnixCommandStream stream("printf '%0512d' 7", "", true);
    awaitExit(stream);
    std::string out;
    EXPECT_TRUE(stream.readAvailable(out));
    EXPECT_EQ(out.size(), 512U);
    EXPECT_TRUE(stream.isEof());
}

TEST_F(CommandStream, FullStepDoesNotBlockBeyondTheTime) {
    UnixCommandStream stream("printf '%0256d' 7; exec sleep 1000", "", true);
    const auto begin = steady_clock::now();
    std::int64_t remaining = second / 2;
    std::string out;
    EXPECT_TRUE(stream.waitForOutput(remaining));
    EXPECT_TRUE(stream.readAvailable(out));
    EXPECT_EQ(out.size(), 256U);
    EXPECT_LT(steady_clock::now() - begin, generous);
}

TEST_F(CommandStream, EndlessOutputComesInBoundedParts) {
    UnixCommandStream stream("exec yes", "", true);
    std::string out;
    EXPECT_TRUE(stream.readAvailable(out));
    EXPECT_LE(out.size(), 1024U * 1024U);
    EXPECT_TRUE(stream.readAvailable(out));
}

} // namespace
} // namespace agent::core::script
