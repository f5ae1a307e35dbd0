#include "support/BlockingCall.h"
#include "unit/core/backup/BackupSignalsFixture.h"

#include <gmock/gmock.h>

#include <cerrno>
#include <fcntl.h>
#include <future>
#include <optional>

namespace agent::core::backup {
namespace {

using namespace std::chrono_literals;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

TEST_F(BackupSignals, BrokenPipeCancelsWithOneLine) {
    runAndSend(SIGPIPE);
    EXPECT_THAT(textsOf(1), testing::ElementsAre("Broken pipe during backup. TID: " + thread));
    EXPECT_FALSE(log.hasPart(3, "TID: "));
    EXPECT_TRUE(log.has(3, "Backup run finished"));
}

TEST_F(BackupSignals, BrokenPipeOfAWriteIsAnErrorOfTheWriteToo) {
    int result = 0;
    int writeError = 0;
    const auto backup = run([&] {
        std::array<int, 2> ends{};
        ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        ::close(ends[0]);
        result = static_cast<int>(::write(ends[1], "x", 1));
        writeError = errno;
        ::close(ends[1]);
    });
    EXPECT_EQ(result, -1);
    EXPECT_EQ(writeError, EPIPE);
    EXPECT_EQ(backup->cancels, 1);
}

TEST_F(BackupSignals, TakenByAnyThreadOfTheProcess) {
    test::BlockingCall call;
    const auto backup = std::make_shared<FakeBackup>("backup", std::ref(call));
    BackupThread thread(log.logger);
    thread.start(backup, nullptr);
    call.waitUntilEntered();
    sendTo(threadId(), SIGPIPE);
    EXPECT_TRUE(test::eventually([&] { return backup->isCancelled(); }));
    EXPECT_TRUE(log.has(1, "Broken pipe during backup. TID: " + nameOfThisThread()));
    call.release();
}

/// Signals that mean a program fault.
class FaultSignals : public BackupSignals, public testing::WithParamInterface<int> {};

TEST_P(FaultSignals, AreLoggedWithABacktraceAndCancel) {
    const std::string name = ::strsignal(GetParam());
    runAndSend(GetParam());
    EXPECT_THAT(textsOf(1),
                testing::ElementsAre("Backup thread - " + name + " (" + std::to_string(GetParam()) + ")"));
    std::vector<std::string> frames;
    for (const std::string& text : textsOf(3)) {
        if (text.starts_with("TID: ")) {
            frames.push_back(text);
        }
    }
    EXPECT_THAT(frames, Not(IsEmpty()));
    EXPECT_THAT(frames, testing::Each(StartsWith("TID: " + thread + " - ")));
    EXPECT_THAT(frames, testing::Contains(HasSubstr("test_core_backup")));
    EXPECT_TRUE(log.has(3, "Backup run finished"));
}

INSTANTIATE_TEST_SUITE_P(Each, FaultSignals,
                         testing::Values(SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSTKFLT),
                         [](const auto& test) { return ::sigabbrev_np(test.param); });

TEST_F(BackupSignals, SegmentationFaultHasItsText) {
    runAndSend(SIGSEGV);
    EXPECT_TRUE(log.has(1, "Backup thread - Segmentation fault (11)"));
}

/// Signals that mean neither a program fault nor a broken pipe.
class OtherSignals : public BackupSignals, public testing::WithParamInterface<int> {};

TEST_P(OtherSignals, AreLoggedAndCancel) {
    const std::string name = ::strsignal(GetParam());
    runAndSend(GetParam());
    EXPECT_THAT(textsOf(1), testing::ElementsAre("Failure on signal: " + name + " (" +
                                                 std::to_string(GetParam()) + "). TID: " + thread));
    EXPECT_FALSE(log.hasPart(3, "TID: "));
}

INSTANTIATE_TEST_SUITE_P(Each, OtherSignals, testing::Values(SIGSYS, SIGALRM, SIGIO),
                         [](const auto& test) { return ::sigabbrev_np(test.param); });

TEST_F(BackupSignals, EachIsCaughtOnceInARun) {
    for (const int signal : caught) {
        const bool caughtFirst = isCaught(signal);
        bool caughtAgain = true;
        int others = 0;
        run([&] {
            EXPECT_TRUE(isCaught(signal));
            sendTo(threadId(), signal);
            EXPECT_TRUE(test::eventually([&] { return !textsOf(1).empty(); }));
            caughtAgain = isCaught(signal);
            for (const int other : caught) {
                others += isCaught(other) ? 1 : 0;
            }
        });
        EXPECT_FALSE(caughtFirst) << signal;
        EXPECT_FALSE(caughtAgain) << signal;
        EXPECT_EQ(others, static_cast<int>(caught.size()) - 1) << signal;
        log.clear();
    }
}

TEST_F(BackupSignals, NothingIsBlockedInsideTheHandler) {
    run([] {
        for (const int signal : caught) {
            const struct ::sigaction current = test::disposition(signal);
            for (int other = 1; other < SIGRTMIN; ++other) {
                EXPECT_EQ(sigismember(&current.sa_mask, other), 0) << signal << " blocks " << other;
            }
            EXPECT_NE(current.sa_flags & static_cast<int>(SA_NODEFER), 0) << signal;
            EXPECT_NE(current.sa_flags & static_cast<int>(SA_RESETHAND), 0) << signal;
        }
        EXPECT_EQ(test::disposition(SIGCHLD).sa_handler, SIG_IGN);
        EXPECT_EQ(test::disposition(SIGCHLD).sa_flags & SA_RESTART, 0);
    });
    EXPECT_NE(test::disposition(SIGCHLD).sa_handler, SIG_IGN);
}

TEST_F(BackupSignals, HandlerLeavesTheErrorNumberAlone) {
    info::Logger logger([](const std::string&, int, info::LogTime) { errno = ENOSPC; });
    FakeBackup backup("backup");
    const BackupSignalHandlers handlers(logger, backup);
    errno = EAGAIN;
    ::raise(SIGPIPE);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(backup.cancels, 1);
}

TEST_F(BackupSignals, DispositionsComeBack) {
    const test::ScopedDisposition ignored(SIGPIPE, SIG_IGN);
    const auto before = dispositions();
    std::map<int, std::pair<sighandler_t, int>> during;
    run([&] { during = dispositions(); });
    EXPECT_EQ(dispositions(), before);
    for (const int signal : changed) {
        EXPECT_NE(during[signal], before.at(signal)) << signal;
    }
}

TEST_F(BackupSignals, DispositionsComeBackAfterAFailureAndAfterASignal) {
    const auto before = dispositions();
    runAndSend(SIGPIPE);
    EXPECT_EQ(dispositions(), before);
    BackupThread thread(log.logger);
    thread.start(std::make_shared<FakeBackup>("backup", [] { throw 7; }), nullptr); // NOLINT(misc-throw*)
    EXPECT_NE(thread.wait(), nullptr);
    EXPECT_EQ(dispositions(), before);
}

/// Checks for each log line of a run whether the handlers are installed when it is logged.
TEST_F(BackupSignals, AreInForceFromTheBeginningToTheFailureLine) {
    std::map<std::string, bool> inForce;
    info::Logger logger([&](const std::string& message, int, info::LogTime) {
        inForce[message.substr(0, message.find_first_of(":."))] = isCaught(SIGPIPE);
    });
    BackupThread thread(logger);
    thread.start(std::make_shared<FakeBackup>("backup", [] { throw std::runtime_error("x"); }), nullptr);
    thread.wait();
    const std::map<std::string, bool> expected = {{"Backup run beginning", false},
                                                  {"Could not prevent system sleep", true},
                                                  {"Could not allow sleep\n", true},
                                                  {"Exception occurred during backup run", true}};
    EXPECT_EQ(inForce, expected);
}

TEST_F(BackupSignals, HandlerOfNobodyOnlySaysSo) {
    struct ::sigaction handler{};
    const auto backup = run([&] { handler = test::disposition(SIGALRM); });
    log.clear();
    ::sigaction(SIGALRM, &handler, nullptr); // as if the signal arrived while the run ends
    testing::internal::CaptureStdout();
    ::raise(SIGALRM);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "~~Logging Error~~ signal handler called on unregistered thread??\n");
    EXPECT_THAT(log.lines(), IsEmpty());
    EXPECT_EQ(backup->cancels, 0);
}

TEST_F(BackupSignals, EndOfTheRunWaitsForAHandlerOnAnotherThread) {
    std::promise<void> logging;
    std::promise<void> letLog;
    info::Logger logger([&](const std::string&, int, info::LogTime) {
        logging.set_value();
        letLog.get_future().wait();
    });
    FakeBackup backup("backup");
    std::optional<BackupSignalHandlers> handlers(std::in_place, logger, backup);
    std::future<void> hit = std::async(std::launch::async, [] { ::raise(SIGPIPE); });
    logging.get_future().wait();
    std::future<void> ending = std::async(std::launch::async, [&] { handlers.reset(); });
    EXPECT_EQ(ending.wait_for(50ms), std::future_status::timeout)
        << "the handler's logger and backup are gone";
    EXPECT_EQ(backup.cancels, 0);
    letLog.set_value();
    ending.get();
    EXPECT_EQ(backup.cancels, 1);
    hit.get();
}

} // namespace
} // namespace agent::core::backup
