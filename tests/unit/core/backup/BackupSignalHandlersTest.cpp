#include "core/backup/BackupSignalHandlers.h"

#include "core/backup/BackupThread.h"
#include "support/BlockingCall.h"
#include "support/FakeBackup.h"
#include "support/ProcessState.h"
#include "support/RecordingLogger.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <future>
#include <map>
#include <optional>
#include <sstream>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace agent::core::backup {
namespace {

using namespace std::chrono_literals;
using test::FakeBackup;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::KilledBySignal;
using testing::Not;
using testing::StartsWith;
using Line = test::RecordingLogger::Line;

constexpr std::array caught = {SIGFPE,  SIGSEGV, SIGILL,  SIGABRT,   SIGBUS,
                               SIGPIPE, SIGSYS,  SIGALRM, SIGSTKFLT, SIGIO};
constexpr std::array changed = {SIGFPE, SIGSEGV, SIGILL,    SIGABRT, SIGBUS, SIGPIPE,
                                SIGSYS, SIGALRM, SIGSTKFLT, SIGIO,   SIGCHLD};

pid_t threadId() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

void sendTo(pid_t thread, int signal) {
    ASSERT_EQ(::syscall(SYS_tgkill, ::getpid(), thread, signal), 0);
}

std::string nameOfThisThread() {
    std::ostringstream text;
    text << std::this_thread::get_id();
    return text.str();
}

bool isCaught(int signal) {
    return test::disposition(signal).sa_handler != SIG_DFL && test::disposition(signal).sa_handler != SIG_IGN;
}

/// The handler and flags of each signal that a run changes, to compare two moments.
std::map<int, std::pair<sighandler_t, int>> dispositions() {
    std::map<int, std::pair<sighandler_t, int>> all;
    for (const int signal : changed) {
        const struct ::sigaction current = test::disposition(signal);
        all[signal] = {current.sa_handler, current.sa_flags};
    }
    return all;
}

class BackupSignals : public testing::Test {
protected:
    /// Starts with the default dispositions, since the sanitizers install handlers of their own.
    BackupSignals() {
        for (const int signal : caught) {
            standard.push_back(std::make_unique<test::ScopedDisposition>(signal, SIG_DFL));
        }
    }

    std::shared_ptr<FakeBackup> run(std::function<void()> body) {
        auto backup = std::make_shared<FakeBackup>("backup", std::move(body));
        BackupThread thread(log.logger);
        thread.start(backup, nullptr);
        EXPECT_EQ(thread.wait(), nullptr);
        return backup;
    }

    /// Sends the signal to the thread that runs the backup, and waits there for the cancel that it causes.
    std::shared_ptr<FakeBackup> runAndSend(int signal) {
        std::shared_ptr<FakeBackup> backup;
        backup = std::make_shared<FakeBackup>("backup", [&, signal] {
            thread = nameOfThisThread();
            sendTo(threadId(), signal);
            EXPECT_TRUE(test::eventually([&] { return backup->isCancelled(); }));
        });
        BackupThread(log.logger).start(backup, nullptr); // destroyed here, after the run
        EXPECT_EQ(backup->cancels, 1);
        return backup;
    }

    [[nodiscard]] std::vector<std::string> textsOf(int level) const {
        std::vector<std::string> texts;
        for (const Line& line : log.lines()) {
            if (line.level == level) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    test::RecordingLogger log;
    std::string thread;
    std::vector<std::unique_ptr<test::ScopedDisposition>> standard;
};

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

/// Two runs at once, as when a cancelled backup winds down while a new one starts.
class OverlappedRuns : public BackupSignals {
protected:
    OverlappedRuns() {
        first.start(firstBackup, nullptr);
        firstCall.waitUntilEntered();
        second.start(secondBackup, nullptr);
        secondCall.waitUntilEntered();
    }

    const std::map<int, std::pair<sighandler_t, int>> before = dispositions();
    test::BlockingCall firstCall;
    test::BlockingCall secondCall;
    std::shared_ptr<FakeBackup> firstBackup = std::make_shared<FakeBackup>("first", std::ref(firstCall));
    std::shared_ptr<FakeBackup> secondBackup = std::make_shared<FakeBackup>("second", std::ref(secondCall));
    BackupThread first{log.logger};
    BackupThread second{log.logger};
};

TEST_F(OverlappedRuns, LaterOneOwnsTheSignals) {
    ::raise(SIGPIPE);
    EXPECT_TRUE(test::eventually([&] { return secondBackup->isCancelled(); }));
    EXPECT_FALSE(firstBackup->isCancelled());
    firstCall.release();
    secondCall.release();
}

TEST_F(OverlappedRuns, DispositionsComeBackWhenTheFirstEndsFirst) {
    firstCall.release();
    first.wait();
    EXPECT_EQ(dispositions(), before);
    secondCall.release();
    second.wait();
    EXPECT_EQ(dispositions(), before);
}

TEST_F(OverlappedRuns, DispositionsComeBackWhenTheSecondEndsFirst) {
    secondCall.release();
    second.wait();
    EXPECT_EQ(dispositions(), before);
    firstCall.release();
    first.wait();
    EXPECT_EQ(dispositions(), before);
}

TEST_F(OverlappedRuns, DispositionsComeBackWhenAThirdStartsBetween) {
    test::BlockingCall thirdCall;
    const auto thirdBackup = std::make_shared<FakeBackup>("third", std::ref(thirdCall));
    BackupThread third(log.logger);
    firstCall.release();
    first.wait();
    third.start(thirdBackup, nullptr);
    thirdCall.waitUntilEntered();
    EXPECT_TRUE(isCaught(SIGPIPE));
    secondCall.release();
    second.wait();
    thirdCall.release();
    third.wait();
    EXPECT_EQ(dispositions(), before);
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

/// Signals that end the process, tested in a child process that logs to standard error.
class BackupSignalsDeathTest : public testing::Test {
protected:
    BackupSignalsDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    /// Runs a backup in a process that leaves no core file.
    static void run(std::function<void()> body) {
        const ::rlimit none{0, 0};
        ::setrlimit(RLIMIT_CORE, &none);
        info::Logger logger([](const std::string& message, int, info::LogTime) {
            (void)!::write(STDERR_FILENO, message.data(), message.size());
        });
        BackupThread thread(logger);
        thread.start(std::make_shared<FakeBackup>("backup", std::move(body)), nullptr);
        thread.wait();
        ::_exit(0);
    }

    static void writeToUnwritableMemory() {
        void* const page = ::mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int*>(page) = 1;
    }
};

TEST_F(BackupSignalsDeathTest, SecondBrokenPipeEndsTheProcess) {
    EXPECT_EXIT(run([] {
                    ::raise(SIGPIPE);
                    (void)!::write(STDERR_FILENO, "between\n", 8);
                    ::raise(SIGPIPE);
                    (void)!::write(STDERR_FILENO, "after\n", 6);
                }),
                KilledBySignal(SIGPIPE), "Broken pipe during backup. TID: [^\n]*\nbetween\n$");
}

TEST_F(BackupSignalsDeathTest, RealFaultIsLoggedAndHappensAgain) {
    EXPECT_EXIT(run(&writeToUnwritableMemory), KilledBySignal(SIGSEGV),
                "Backup thread - Segmentation fault \\(11\\)\n(TID: [^\n]* - [^\n]*\n)+$");
}

TEST_F(BackupSignalsDeathTest, AbortIsLoggedAndEndsTheProcess) {
    EXPECT_EXIT(run(&::abort), KilledBySignal(SIGABRT),
                "Backup thread - Aborted \\(6\\)\n(TID: [^\n]* - [^\n]*\n)+$");
}

} // namespace
} // namespace agent::core::backup
