#include "core/script/UnixCommandStream.h"

#include "common/PosixError.h"
#include "core/script/CommandUtility.h"
#include "support/DeniedSystemCall.h"
#include "support/ProcessState.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <functional>
#include <iostream>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace agent::core::script {
namespace {

using std::chrono::steady_clock;
using testing::HasSubstr;
using testing::StartsWith;

constexpr std::int64_t second = 1'000'000;
constexpr std::chrono::seconds generous(20);

/// Reads to the end of the output; fails the test if that takes too long.
std::string readAll(ICommandStream& stream) {
    std::string all;
    std::string chunk;
    std::int64_t remaining = 20 * second;
    while (stream.waitForOutput(remaining) && stream.readAvailable(chunk)) {
        all += chunk;
    }
    EXPECT_TRUE(stream.isEof());
    return all;
}

std::string outputOf(const std::string& command, const std::string& directory = "") {
    UnixCommandStream stream(command, directory, true);
    return readAll(stream);
}

/// Message and code of a PosixError.
using Failure = std::pair<std::string, int>;

/// The PosixError that `operation` throws.
Failure posixError(const std::function<void()>& operation) {
    try {
        operation();
    } catch (const PosixError& error) {
        return {error.what(), error.code()};
    }
    return {"nothing thrown", 0};
}

void awaitExit(const ICommandStream& stream) {
    const auto deadline = steady_clock::now() + generous;
    while (!stream.hasExited()) {
        ASSERT_LT(steady_clock::now(), deadline) << "the command goes on running";
        std::this_thread::yield();
    }
}

void awaitNoChildren() {
    const auto deadline = steady_clock::now() + generous;
    while (!test::hasNoChildren()) {
        ASSERT_LT(steady_clock::now(), deadline) << "the command goes on running";
        std::this_thread::yield();
    }
}

/// Runs `operation` while a signal interrupts its system calls every few milliseconds.
void underInterruption(const std::function<void()>& operation) {
    const test::ScopedDisposition handler(SIGALRM, [](int /*signal*/) {});
    const ::itimerval often{{0, 5000}, {0, 5000}};
    const ::itimerval never{};
    ::setitimer(ITIMER_REAL, &often, nullptr);
    operation();
    ::setitimer(ITIMER_REAL, &never, nullptr);
}

/// Every test leaves the process unchanged: no children, no open descriptors, the same disposition of
/// SIGCHLD.
class CommandStream : public testing::Test {
protected:
    void TearDown() override {
        EXPECT_TRUE(test::hasNoChildren());
        EXPECT_EQ(test::openDescriptors(), descriptors);
        EXPECT_EQ(test::disposition(SIGCHLD).sa_handler, SIG_DFL);
        EXPECT_EQ(test::disposition(SIGCHLD).sa_flags & SA_RESTART, 0);
    }

    std::size_t descriptors = test::openDescriptors();
};

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

// Times

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

// Its destruction

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

// What the child starts with

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

// The disposition of SIGCHLD

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

// Failures

TEST_F(CommandStream, NoDescriptorsLeftIsAFailureOfThePipe) {
    ::rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    const ::rlimit none{3, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    const auto error = posixError([] { const UnixCommandStream stream("exit 0", "", true); });
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
    EXPECT_EQ(error, Failure("pipe failed!: Too many open files | ERROR(Posix) : 24 (0x18)", EMFILE));
}

TEST_F(CommandStream, InterruptedSelectIsAFailure) {
    UnixCommandStream stream("exec sleep 1000", "", true);
    std::int64_t remaining = 20 * second;
    underInterruption([&] {
        EXPECT_EQ(posixError([&] { stream.waitForOutput(remaining); }),
                  Failure("select failed!: Interrupted system call | ERROR(Posix) : 4 (0x4)", EINTR));
    });
    EXPECT_LT(remaining, 20 * second);
}

TEST_F(CommandStream, InterruptedReadIsAFailure) {
    UnixCommandStream stream("exec sleep 1000", "", true);
    std::string out;
    char byte = 'x';
    underInterruption([&] {
        const Failure expected("read failed!: Interrupted system call | ERROR(Posix) : 4 (0x4)", EINTR);
        EXPECT_EQ(posixError([&] { stream.readAvailable(out); }), expected);
        EXPECT_EQ(posixError([&] { stream.readChar(&byte); }), expected);
    });
    EXPECT_EQ(byte, 0);
    EXPECT_FALSE(stream.isEof());
}

TEST_F(CommandStream, WaitCanBeRepeatedAfterAnInterruption) {
    UnixCommandStream stream("sleep 0.3; exit 4", "", true);
    underInterruption([&] { EXPECT_EQ(posixError([&] { stream.wait(); }).second, EINTR); });
    EXPECT_EQ(stream.wait(), 4);
}

TEST_F(CommandStream, WorksBehindManyOpenDescriptors) {
    ::rlimit former{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &former), 0);
    ASSERT_GT(former.rlim_max, FD_SETSIZE + 100U);
    const ::rlimit raised{FD_SETSIZE + 100, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &raised), 0);
    {
        std::vector<os::FileDescriptor> many;
        while (many.empty() || many.back().get() < FD_SETSIZE) {
            many.emplace_back(::open("/dev/null", O_RDONLY | O_CLOEXEC));
            ASSERT_TRUE(many.back());
        }
        UnixCommandStream stream("echo text", "", true);
        std::int64_t remaining = 20 * second;
        EXPECT_TRUE(stream.waitForOutput(remaining));
        std::string out;
        EXPECT_TRUE(stream.readAvailable(out));
        EXPECT_EQ(out, "text\n");
        EXPECT_TRUE(stream.waitForOutput(remaining)); // reading the end counts as output
        EXPECT_FALSE(stream.readAvailable(out));
        EXPECT_GT(remaining, 0);
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &former), 0);
}

/// Runs `operation` in a child process and prints the message of its exception.
[[noreturn]] void reportAndExit(const std::function<void()>& operation) {
    std::cerr << posixError(operation).first << std::endl;
    ::_exit(0);
}

class CommandStreamDeathTest : public CommandStream {};

TEST_F(CommandStreamDeathTest, NoProcessToBeHadIsAFailureOfTheFork) {
    EXPECT_EXIT(reportAndExit([] {
                    test::denySystemCall(SYS_clone, EAGAIN);
                    const UnixCommandStream stream("exit 0", "", true);
                }),
                testing::ExitedWithCode(0), "^fork failed!: Resource temporarily unavailable ");
}

TEST_F(CommandStreamDeathTest, DispositionThatCannotBeChangedIsAFailure) {
    EXPECT_EXIT(reportAndExit([] {
                    UnixCommandStream stream("exit 0", "", true);
                    test::denySystemCall(SYS_rt_sigaction, EPERM);
                    std::int64_t remaining = second;
                    stream.waitForOutput(remaining);
                }),
                testing::ExitedWithCode(0), "^sigaction failed!: Operation not permitted ");
}

TEST_F(CommandStreamDeathTest, DispositionThatCannotBePutBackIsAFailure) {
    const test::TestDirectory directory;
    const std::string fifo = directory / "fifo";
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    EXPECT_EXIT(reportAndExit([&] {
                    UnixCommandStream stream("exec cat " + fifo, "", true);
                    // Lets the command print only once the read is in progress and restoring the disposition
                    // is bound to fail.
                    std::thread bar([&] {
                        while ((test::disposition(SIGCHLD).sa_flags & SA_RESTART) == 0) {
                            std::this_thread::yield();
                        }
                        test::denySystemCall(SYS_rt_sigaction, EPERM);
                        test::writeFile(fifo, "text");
                    });
                    char byte = 0;
                    const auto error = posixError([&] { stream.readChar(&byte); });
                    bar.join();
                    if (byte == 't') {
                        throw PosixError(error.first.substr(0, 17), error.second);
                    }
                }),
                testing::ExitedWithCode(0), "^sigaction failed!: Operation not permitted ");
}

TEST_F(CommandStreamDeathTest, StandardDescriptorsOfTheAgentMayBeClosed) {
    EXPECT_EXIT(
        {
            const int report = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 10);
            ::close(STDIN_FILENO);
            ::close(STDOUT_FILENO);
            ::close(STDERR_FILENO);
            const std::string out = outputOf("echo out; echo err >&2");
            ::dup2(report, STDERR_FILENO);
            std::cerr << out << std::flush;
            ::_exit(0);
        },
        testing::ExitedWithCode(0), "^out\nerr\n$");
}

} // namespace
} // namespace agent::core::script
