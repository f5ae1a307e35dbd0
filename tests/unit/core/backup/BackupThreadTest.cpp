#include "core/backup/BackupThread.h"

#include "common/Directory.h"
#include "common/TerminationSignals.h"
#include "core/backup/Backup.h"
#include "core/backup/BackupAttributes.h"
#include "core/operation/CancelableOperation.h"
#include "core/script/UnixCommandStream.h"
#include "support/BackupHarness.h"
#include "support/BlockingCall.h"
#include "support/FakeBackup.h"
#include "support/NoMoreThreads.h"
#include "support/ProcessState.h"
#include "support/RecordingLogger.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <optional>
#include <stdexcept>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace agent::core::backup {
namespace {

using namespace std::chrono_literals;
using test::FakeBackup;
using testing::ElementsAre;
using testing::StartsWith;
using Line = test::RecordingLogger::Line;

std::string messageOf(const std::exception_ptr& failure) {
    try {
        if (failure) {
            std::rethrow_exception(failure);
        }
    } catch (const std::exception& error) {
        return error.what();
    }
    return "none";
}

std::size_t threadCount() {
    return dir::list("/proc/self/task").size();
}

class BackupThreadTest : public testing::Test {
protected:
    std::shared_ptr<FakeBackup> start(const std::string& id, std::function<void()> body = {}) {
        auto backup = std::make_shared<FakeBackup>(id, std::move(body));
        thread->start(backup, std::make_unique<BackupSession>(log.logger));
        return backup;
    }

    /// Runs a backup to its end. Returns its exception.
    std::exception_ptr run(std::function<void()> body) {
        start("backup", std::move(body));
        return thread->wait();
    }

    test::RecordingLogger log;
    std::optional<BackupThread> thread{std::in_place, log.logger};
};

TEST_F(BackupThreadTest, IsIdleAtFirst) {
    EXPECT_FALSE(thread->isRunning());
    EXPECT_EQ(thread->getBackupId(), "");
    EXPECT_EQ(thread->wait(), nullptr);
}

TEST_F(BackupThreadTest, RunsTheBackupWithItsSession) {
    test::BlockingCall call;
    const auto backup = start("backup", std::ref(call));
    call.waitUntilEntered();
    EXPECT_TRUE(thread->isRunning());
    EXPECT_EQ(thread->getBackupId(), "backup");
    call.release();
    EXPECT_TRUE(test::eventually([&] { return !thread->isRunning(); }));
    EXPECT_EQ(thread->getBackupId(), "backup"); // until wait() has been called
    EXPECT_EQ(thread->wait(), nullptr);
    EXPECT_EQ(thread->getBackupId(), "");
    EXPECT_FALSE(thread->isRunning());
    EXPECT_NE(backup->session, nullptr);
    EXPECT_EQ(backup.use_count(), 1);
}

TEST_F(BackupThreadTest, TheQuestionWhetherItRunsReapsOneThatHasEnded) {
    const auto backup = start("backup");
    EXPECT_TRUE(test::eventually([&] { return !thread->isRunning(); }));
    EXPECT_EQ(backup.use_count(), 2); // the test's and getBackupId()'s; the run's is gone
    EXPECT_FALSE(thread->isRunning());
    EXPECT_EQ(thread->getBackupId(), "backup");
    EXPECT_EQ(thread->wait(), nullptr);
    EXPECT_EQ(backup.use_count(), 1);
}

TEST_F(BackupThreadTest, FailureIsKeptWhenARunIsReaped) {
    start("backup", [] { throw std::runtime_error("disk is gone"); });
    EXPECT_TRUE(test::eventually([&] { return !thread->isRunning(); }));
    EXPECT_EQ(messageOf(thread->wait()), "disk is gone");
}

TEST_F(BackupThreadTest, ThreadThatCannotBeMadeIsAFailureOfTheStart) {
    const auto backup = std::make_shared<FakeBackup>("backup");
    {
        const test::NoMoreThreads none;
        EXPECT_THROW(thread->start(backup, std::make_unique<BackupSession>(log.logger)), std::system_error);
    }
    EXPECT_TRUE(log.hasPart(info::level::error, "Exception occurred while trying to spawn backup thread: "));
    EXPECT_FALSE(thread->isRunning());
    EXPECT_EQ(thread->getBackupId(), "backup");
    EXPECT_EQ(backup->session, nullptr);
    EXPECT_EQ(backup.use_count(), 2);
    EXPECT_EQ(run([] {}), nullptr);
    EXPECT_EQ(backup.use_count(), 1);
}

TEST_F(BackupThreadTest, RunsOnAThreadOfItsOwn) {
    std::thread::id id;
    run([&] { id = std::this_thread::get_id(); });
    EXPECT_NE(id, std::thread::id());
    EXPECT_NE(id, std::this_thread::get_id());
}

/// The tests have no message bus, so the sleep lock fails first, and nothing else does.
TEST_F(BackupThreadTest, LogsTheRunAndGoesOnWithoutTheSleepLock) {
    EXPECT_EQ(run([&] { log.logger.log(3, "working"); }), nullptr);
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 6U);
    EXPECT_EQ(lines[0], (Line{4, "Backup session created"}));
    EXPECT_EQ(lines[1], (Line{3, "Backup run beginning..."}));
    EXPECT_EQ(lines[2].level, 2);
    EXPECT_THAT(lines[2].text, StartsWith("Could not prevent system sleep: "));
    EXPECT_EQ(lines[3], (Line{3, "working"}));
    EXPECT_EQ(lines[4], (Line{3, "Backup run finished"}));
    EXPECT_EQ(lines[5], (Line{2, "Could not allow sleep"}));
}

TEST_F(BackupThreadTest, FailureIsKeptUntilTheNextStart) {
    const std::exception_ptr failure = run([] { throw std::runtime_error("post backup failed"); });
    EXPECT_EQ(messageOf(failure), "post backup failed");
    EXPECT_TRUE(log.has(1, "Exception occurred during backup run: post backup failed"));
    EXPECT_FALSE(log.has(3, "Backup run finished"));
    EXPECT_EQ(messageOf(thread->wait()), "post backup failed");
    EXPECT_EQ(run([] {}), nullptr);
}

TEST_F(BackupThreadTest, FailureIsClearedByTheStartItself) {
    run([] { throw std::runtime_error("post backup failed"); });
    EXPECT_FALSE(thread->isRunning());
    test::BlockingCall call;
    start("next", std::ref(call));
    call.waitUntilEntered();
    std::future<std::exception_ptr> waiting = std::async(std::launch::async, [&] { return thread->wait(); });
    call.release();
    EXPECT_EQ(messageOf(waiting.get()), "none");
}

TEST_F(BackupThreadTest, FailureOfAnyTypeIsKept) {
    const std::exception_ptr failure = run([] { throw 7; }); // NOLINT(misc-throw*)
    EXPECT_TRUE(log.has(1, "Unknown exception occurred during backup run"));
    int thrown = 0;
    try {
        std::rethrow_exception(failure);
    } catch (int number) {
        thrown = number;
    }
    EXPECT_EQ(thrown, 7);
}

TEST_F(BackupThreadTest, NoBackupIsAFailureOfTheRun) {
    thread->start(nullptr, std::make_unique<BackupSession>(log.logger));
    EXPECT_EQ(messageOf(thread->wait()), "Invalid backup pointer given to backup thread!");
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{4, "Backup session created"},
                            Line{1, "Exception occurred during backup run: Invalid backup pointer given to "
                                    "backup thread!"},
                            Line{3, "Closing backup session, finalizing remote targets..."},
                            Line{4, "Backup session destroyed"}));
    EXPECT_EQ(thread->getBackupId(), "");
}

TEST_F(BackupThreadTest, NoSessionIsForTheBackupToRefuse) {
    test::BackupHarness harness;
    const auto attributes =
        std::make_shared<BackupAttributes>(std::unordered_map<std::string, VolumeAttributes>{{"first", {}}});
    const std::shared_ptr<Backup> backup = harness.make(attributes, std::make_unique<CancelableOperation>());
    thread->start(backup, nullptr);
    EXPECT_EQ(messageOf(thread->wait()), "Invalid session pointer given to backup run!");
}

TEST_F(BackupThreadTest, DestructionWaitsForTheRun) {
    test::BlockingCall call;
    std::atomic<bool> ended = false;
    start("backup", [&] {
        call();
        ended = true;
    });
    call.waitUntilEntered();
    std::future<bool> destroyed = std::async(std::launch::async, [&] {
        thread.reset();
        return ended.load();
    });
    EXPECT_EQ(destroyed.wait_for(50ms), std::future_status::timeout);
    call.release();
    EXPECT_TRUE(destroyed.get());
}

TEST_F(BackupThreadTest, WaitReturnsWhenTheRunHasEnded) {
    test::BlockingCall call;
    start("backup", std::ref(call));
    call.waitUntilEntered();
    std::future<std::exception_ptr> waiting = std::async(std::launch::async, [&] { return thread->wait(); });
    EXPECT_EQ(waiting.wait_for(50ms), std::future_status::timeout);
    EXPECT_EQ(thread->getBackupId(), "backup"); // answered while another thread waits
    EXPECT_TRUE(thread->isRunning());
    call.release();
    waiting.get();
    EXPECT_EQ(thread->getBackupId(), "");
}

TEST_F(BackupThreadTest, StartBehindARunThatWindsDownWaitsForIt) {
    test::BlockingCall first;
    test::BlockingCall second;
    start("first", std::ref(first));
    first.waitUntilEntered();
    std::future<void> starting = std::async(std::launch::async, [&] { start("second", std::ref(second)); });
    second.waitUntilEntered(); // the new run has begun while the old one still runs
    EXPECT_EQ(starting.wait_for(50ms), std::future_status::timeout);
    EXPECT_EQ(thread->getBackupId(), "second");
    first.release();
    starting.get();
    EXPECT_TRUE(thread->isRunning());
    second.release();
    EXPECT_EQ(thread->wait(), nullptr);
    EXPECT_EQ(log.count(3, "Backup run finished"), 2);
}

TEST_F(BackupThreadTest, TerminationSignalsAreLeftToTheOthers) {
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    sigset_t inside;
    sigemptyset(&inside);
    run([&] { pthread_sigmask(SIG_BLOCK, nullptr, &inside); });
    sigset_t after;
    pthread_sigmask(SIG_BLOCK, nullptr, &after);
    for (int signal = 1; signal < NSIG; ++signal) {
        const bool isTermination = std::find(terminationSignals.begin(), terminationSignals.end(), signal) !=
                                   terminationSignals.end();
        EXPECT_EQ(sigismember(&inside, signal) == 1, isTermination || sigismember(&before, signal) == 1)
            << signal;
        EXPECT_EQ(sigismember(&after, signal), sigismember(&before, signal)) << signal;
    }
}

TEST_F(BackupThreadTest, ScriptOfARunIsReadAndReaped) {
    std::string output;
    bool reaped = false;
    run([&] {
        {
            script::UnixCommandStream script("echo frozen; exec true", "", true);
            std::int64_t remaining = 30'000'000;
            std::string chunk;
            while (script.waitForOutput(remaining) && script.readAvailable(chunk)) {
                output += chunk;
            }
        }
        reaped = test::hasNoChildren();
    });
    EXPECT_EQ(output, "frozen\n");
    EXPECT_TRUE(reaped);
}

TEST_F(BackupThreadTest, ChildThatNobodyWaitsForIsNoZombie) {
    bool reaped = false;
    run([&] {
        if (::fork() == 0) {
            ::_exit(0);
        }
        reaped = test::eventually(&test::hasNoChildren);
    });
    EXPECT_TRUE(reaped);
}

TEST_F(BackupThreadTest, ManyRunsLeaveNothingBehind) {
    run([] {});
    const std::size_t descriptors = test::openDescriptors();
    const std::size_t threads = threadCount();
    for (int i = 0; i < 200; ++i) {
        run([i] {
            if (i % 2 == 0) {
                throw std::runtime_error("every other fails");
            }
        });
    }
    EXPECT_EQ(test::openDescriptors(), descriptors);
    EXPECT_TRUE(test::eventually([&] { return threadCount() == threads; })) << threadCount();
}

} // namespace
} // namespace agent::core::backup
