#include "support/DeniedSystemCall.h"
#include "unit/core/script/CommandStreamFixture.h"

#include <cerrno>
#include <fcntl.h>
#include <iostream>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace agent::core::script {
namespace {

TEST_F(CommandStream, NoDescriptorsLeftIsAFailureOfThePipe) {
    // UBSan opens a pipe when it meets an object of a class for the first time: let it meet them all before.
    EXPECT_EQ(UnixCommandStream("exit 0", "", true).wait(), 0);
    EXPECT_EQ(posixError([] { throw PosixError("an error", EMFILE); }).second, EMFILE);
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
