#include "core/script/CommandUtility.h"
#include "unit/core/script/CommandStreamFixture.h"

#include <gmock/gmock.h>

#include <array>
#include <cerrno>

namespace agent::core::script {
namespace {

using testing::HasSubstr;
using testing::StartsWith;

TEST_F(CommandStream, ReadsOutput) {
    EXPECT_EQ(outputOf("echo one; echo two"), "one\ntwo\n");
}

TEST_F(CommandStream, SeesStandardErrorInTheSameStream) {
    EXPECT_EQ(outputOf("echo out; echo err >&2; echo out"), "out\nerr\nout\n");
}

TEST_F(CommandStream, CommandThatExitsAtOnceIsReadableAtItsEnd) {
    UnixCommandStream stream("exit 0", "", true);
    std::int64_t remaining = 20 * second;
    EXPECT_FALSE(stream.isEof());
    EXPECT_TRUE(stream.waitForOutput(remaining));
    std::string out = "former";
    EXPECT_FALSE(stream.readAvailable(out));
    EXPECT_EQ(out, "");
    EXPECT_TRUE(stream.isEof());
    EXPECT_FALSE(stream.readAvailable(out));
}

TEST_F(CommandStream, ShellReportsACommandThatCannotBeFound) {
    UnixCommandStream stream("/nowhere/at-all", "", true);
    EXPECT_THAT(readAll(stream), HasSubstr("not found"));
    EXPECT_EQ(stream.wait(), 127);
}

TEST_F(CommandStream, ShellReportsACommandThatCannotBeExecuted) {
    const test::TestDirectory directory;
    test::writeFile(directory / "script", "#!/bin/sh\n");
    UnixCommandStream stream((directory / "script").str(), "", true);
    EXPECT_THAT(readAll(stream), HasSubstr("Permission denied"));
    EXPECT_EQ(stream.wait(), 126);
}

TEST_F(CommandStream, WaitGivesTheExitStatus) {
    EXPECT_EQ(UnixCommandStream("exit 0", "", true).wait(), 0);
    EXPECT_EQ(UnixCommandStream("exit 77", "", true).wait(), 77);
    EXPECT_EQ(UnixCommandStream("exit 255", "", true).wait(), 255);
}

TEST_F(CommandStream, WaitGivesTheSignalsNumber) {
    EXPECT_EQ(UnixCommandStream("kill -TERM $$", "", true).wait(), SIGTERM);
    UnixCommandStream stream("exec sleep 1000", "", true);
    EXPECT_FALSE(stream.hasExited());
    stream.kill();
    EXPECT_EQ(stream.wait(), SIGKILL);
}

TEST_F(CommandStream, IsReapedAndHasExitedAfterWait) {
    UnixCommandStream stream("exit 3", "", true);
    EXPECT_FALSE(stream.isReaped());
    EXPECT_EQ(stream.wait(), 3);
    EXPECT_TRUE(stream.isReaped());
    EXPECT_TRUE(stream.hasExited());
    EXPECT_EQ(stream.wait(), 0);
}

TEST_F(CommandStream, HasExitedDoesNotReap) {
    UnixCommandStream stream("exit 3", "", true);
    awaitExit(stream);
    EXPECT_FALSE(stream.isReaped());
    EXPECT_TRUE(stream.hasExited());
    EXPECT_EQ(stream.wait(), 3);
}

TEST_F(CommandStream, OutputOutlivesItsCommand) {
    UnixCommandStream stream("echo late", "", true);
    EXPECT_EQ(stream.wait(), 0);
    EXPECT_EQ(readAll(stream), "late\n");
}

TEST_F(CommandStream, ReadCharGivesByteForByte) {
    UnixCommandStream stream("printf 'a\\000b'", "", true);
    std::string read;
    char byte = 'x';
    while (stream.readChar(&byte)) {
        read += byte;
    }
    EXPECT_EQ(read, std::string("a\0b", 3));
    EXPECT_EQ(byte, 0);
    EXPECT_TRUE(stream.isEof());
}

TEST_F(CommandStream, KeepsNulBytes) {
    EXPECT_EQ(outputOf("printf 'a\\000b\\n'"), std::string("a\0b\n", 4));
}

TEST_F(CommandStream, WorksInTheGivenDirectory) {
    EXPECT_EQ(outputOf("pwd", "/usr/lib"), "/usr/lib\n");
    std::array<char, 4096> here{};
    ASSERT_NE(::getcwd(here.data(), here.size()), nullptr);
    EXPECT_EQ(outputOf("pwd -P"), std::string(here.data()) + "\n");
}

TEST_F(CommandStream, DirectoryThatCannotBeEnteredEndsTheChild) {
    UnixCommandStream stream("echo never", "/nowhere", true);
    EXPECT_EQ(readAll(stream), "chdir: No such file or directory\n");
    EXPECT_EQ(stream.wait(), 1);
}

TEST_F(CommandStream, ShellThatCannotBeStartedEndsTheChild) {
    UnixCommandStream stream("echo " + std::string(200'000, 'x'), "", true);
    EXPECT_EQ(readAll(stream), "execl: Argument list too long\n");
    EXPECT_EQ(stream.wait(), 1);
}

TEST_F(CommandStream, UtilityStartsSuchAStream) {
    const auto stream = CommandUtility().createCommandStream("pwd", "/usr", true);
    EXPECT_EQ(readAll(*stream), "/usr\n");
}

// Destruction of a stream

TEST_F(CommandStream, DestroyingARunningStreamKillsAndReaps) {
    const auto begin = steady_clock::now();
    {
        const UnixCommandStream stream("exec sleep 1000", "", true);
    }
    EXPECT_TRUE(test::hasNoChildren());
    EXPECT_LT(steady_clock::now() - begin, generous);
}

TEST_F(CommandStream, DestroyingWaitsForTheCommandIfItIsNotToBeKilled) {
    const test::TestDirectory directory;
    const std::string mark = directory / "mark";
    {
        const UnixCommandStream stream("sleep 0.2; echo done >" + mark, "", false);
    }
    EXPECT_EQ(test::readFile(mark), "done\n");
    EXPECT_TRUE(test::hasNoChildren());
}

TEST_F(CommandStream, DestroyingReapsAlsoWhenInterrupted) {
    underInterruption([] { const UnixCommandStream stream("sleep 0.2", "", false); });
    EXPECT_TRUE(test::hasNoChildren());
}

TEST_F(CommandStream, KillIsRefusedOnceTheChildIsGone) {
    UnixCommandStream stream("exit 0", "", true);
    EXPECT_EQ(stream.wait(), 0);
    EXPECT_EQ(posixError([&] { stream.kill(); }),
              Failure("kill failed!: No such process | ERROR(Posix) : 3 (0x3)", ESRCH));
}

TEST_F(CommandStream, KillOfAnEndedChildIsNoFailure) {
    UnixCommandStream stream("exit 5", "", true);
    awaitExit(stream);
    stream.kill();
    EXPECT_EQ(stream.wait(), 5);
}

// The state in which the child starts

TEST_F(CommandStream, ChildHasNoSignalBlockedOrIgnored) {
    const test::ScopedDisposition pipe(SIGPIPE, SIG_IGN);
    const test::ScopedDisposition child(SIGCHLD, SIG_IGN);
    const test::ScopedDisposition user(SIGUSR1, SIG_IGN);
    sigset_t termination;
    sigset_t previous;
    sigemptyset(&termination);
    sigaddset(&termination, SIGTERM);
    sigaddset(&termination, SIGINT);
    ::pthread_sigmask(SIG_BLOCK, &termination, &previous);
    const std::string status = outputOf("grep -E '^Sig(Blk|Ign)' /proc/self/status");
    sigset_t after;
    ::pthread_sigmask(SIG_SETMASK, &previous, &after);
    EXPECT_EQ(status, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
    EXPECT_EQ(sigismember(&after, SIGTERM), 1);
    EXPECT_EQ(sigismember(&after, SIGHUP), 0);
    EXPECT_EQ(test::disposition(SIGPIPE).sa_handler, SIG_IGN);
}

TEST_F(CommandStream, ChildGetsNoDescriptorOfAnotherStream) {
    const auto list = [] { return outputOf("ls /proc/$$/fd; :"); };
    const std::string before = list(); // what the tests themselves inherited
    const UnixCommandStream other("exec sleep 20", "", true);
    EXPECT_THAT(before, StartsWith("0\n1\n"));
    EXPECT_EQ(list(), before);
}

TEST_F(CommandStream, CommandThatClosesItsOutputIsAtItsEnd) {
    UnixCommandStream stream("echo text; exec >&- 2>&-; exec sleep 1000", "", true);
    EXPECT_EQ(readAll(stream), "text\n");
    EXPECT_FALSE(stream.hasExited());
}

} // namespace
} // namespace agent::core::script
