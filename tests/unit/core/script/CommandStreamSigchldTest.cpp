#include "unit/core/script/CommandStreamFixture.h"

#include <cerrno>

namespace agent::core::script {
namespace {

TEST_F(CommandStream, PutsTheDispositionBackAfterEachOperation) {
    const test::ScopedDisposition ignored(SIGCHLD, SIG_IGN);
    UnixCommandStream stream("echo one; echo two; exec sleep 1000", "", true);
    const auto isIgnored = [] { return test::disposition(SIGCHLD).sa_handler == SIG_IGN; };
    std::int64_t remaining = 20 * second;
    char byte = 0;
    std::string out;
    EXPECT_TRUE(isIgnored());
    EXPECT_TRUE(stream.waitForOutput(remaining));
    EXPECT_TRUE(isIgnored());
    EXPECT_TRUE(stream.readChar(&byte));
    EXPECT_TRUE(isIgnored());
    EXPECT_TRUE(stream.readAvailable(out));
    EXPECT_TRUE(isIgnored());
    EXPECT_FALSE(stream.hasExited());
    EXPECT_TRUE(isIgnored());
}

TEST_F(CommandStream, PutsAHandlerBackAfterAFailure) {
    constexpr auto handler = [](int /*signal*/) {};
    const test::ScopedDisposition handled(SIGCHLD, handler);
    UnixCommandStream stream("exit 0", "", true);
    EXPECT_EQ(stream.wait(), 0);
    EXPECT_THROW(stream.kill(), PosixError);
    EXPECT_EQ(test::disposition(SIGCHLD).sa_handler, +handler);
}

TEST_F(CommandStream, WaitGetsTheStatusAlthoughSigchldIsIgnored) {
    const test::ScopedDisposition ignored(SIGCHLD, SIG_IGN);
    UnixCommandStream stream("sleep 0.3; exit 9", "", true);
    EXPECT_EQ(stream.wait(), 9);
    EXPECT_EQ(test::disposition(SIGCHLD).sa_handler, SIG_IGN);
}

TEST_F(CommandStream, OutputOfAChildThatTheKernelReapedIsRead) {
    const test::ScopedDisposition ignored(SIGCHLD, SIG_IGN);
    UnixCommandStream stream("echo text", "", true);
    awaitNoChildren();
    EXPECT_EQ(readAll(stream), "text\n");
}

TEST_F(CommandStream, ChildThatTheKernelReapedIsAFailureOfWaitKillAndHasExited) {
    const test::ScopedDisposition ignored(SIGCHLD, SIG_IGN);
    UnixCommandStream stream("exit 0", "", true);
    awaitNoChildren();
    EXPECT_EQ(posixError([&] { stream.wait(); }),
              Failure("waitpid failed!: No child processes | ERROR(Posix) : 10 (0xa)", ECHILD));
    EXPECT_EQ(posixError([&] { (void)stream.hasExited(); }),
              Failure("waitid failed!: No child processes | ERROR(Posix) : 10 (0xa)", ECHILD));
    EXPECT_EQ(posixError([&] { stream.kill(); }).second, ESRCH);
    EXPECT_FALSE(stream.isReaped());
}

} // namespace
} // namespace agent::core::script
