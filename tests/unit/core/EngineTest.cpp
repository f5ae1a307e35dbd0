#include "core/Engine.h"

#include "common/Exceptions.h"
#include "core/backup/BackupManager.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupThread.h"
#include "support/BlockingCall.h"
#include "support/Messages.h"
#include "support/NoMoreThreads.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <future>
#include <map>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace agent::core {
namespace {

using backup::BackupSession;
using backup::BackupStatus;
using test::messageOf;
using testing::ElementsAre;
using namespace std::chrono_literals;

class DriverInfo : public IDriverInfoProvider {
public:
    [[nodiscard]] std::string getDriverVersion() const override { return "4.2.0"; }
    [[nodiscard]] bool isRebootRequired() const override { return false; }
    [[nodiscard]] std::string getDriverStatus() const override { return "{}"; }
};

class Scripts : public script::IQuiesce {
public:
    std::set<std::string> getScripts(const std::string& directory) override {
        askedFor = directory;
        return {"b-second", "a-first"};
    }
    void runScript(const std::string& /*script*/, std::uint32_t /*timeout*/, bool /*isPre*/) override {}
    std::string askedFor;
};

/// Keeps backups running, whether cancelled or not, until it is opened.
class Gate {
public:
    void open() {
        const std::lock_guard lock(mutex);
        opened = true;
        changed.notify_all();
    }
    void pass() {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return opened; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool opened = false;
};

/// A backup that runs until the gate opens. Cancelling alone doesn't end it, as with a backup that waits for
/// a slow disk.
class StubbornBackup : public backup::IBackup {
public:
    StubbornBackup(std::string id, Gate& gate) : id(std::move(id)), gate(gate) {}

    [[nodiscard]] std::string getId() const override { return id; }
    void getStatus(BackupStatus& out) const override { out = {}; }
    void ping() override {}
    [[nodiscard]] bool isActive() const override { return !ended; }
    [[nodiscard]] bool isFinished() const override { return ended && !cancelled; }
    void cancel() override { cancelled = true; }
    [[nodiscard]] bool isCancelled() const override { return cancelled; }
    void run(std::unique_ptr<BackupSession> /*session*/) override {
        started = true;
        gate.pass();
        ended = true;
        if (fails) {
            throw std::runtime_error("post backup failed");
        }
    }

    std::atomic<bool> started = false;
    std::atomic<bool> ended = false;
    std::atomic<bool> cancelled = false;
    bool fails = false;

private:
    std::string id;
    Gate& gate;
};

class EngineTest : public testing::Test {
protected:
    ~EngineTest() override { gate.open(); }

    std::unique_ptr<backup::IBackup> makeBackup() {
        auto made = std::make_unique<StubbornBackup>("backup-" + std::to_string(++backupsMade), gate);
        made->fails = backupsFail;
        if (const std::function<void()> action = whileMaking) { // a copy: the test may replace it meanwhile
            action();
        }
        return made;
    }

    std::unique_ptr<Engine> makeEngine() {
        return std::make_unique<Engine>(
            record.logger, driverInfo, quiesce, manager,
            [this]() -> std::unique_ptr<backup::IBackupThread> {
                if (threadsLeft-- <= 0) {
                    return nullptr;
                }
                return std::make_unique<backup::BackupThread>(record.logger);
            },
            [this](auto, auto) { return makeBackup(); });
    }

    std::string request() {
        return engine->createBackup(std::make_unique<BackupSession>(record.logger), nullptr, nullptr);
    }

    std::map<std::string, std::uint32_t> states() {
        std::unordered_map<std::string, std::uint32_t> all;
        manager.getStatuses(all);
        return {all.begin(), all.end()};
    }

    bool waitUntilIdle() {
        for (int i = 0; i < 5000 && engine->isBackupRunning(); ++i) {
            std::this_thread::sleep_for(1ms);
        }
        return !engine->isBackupRunning();
    }

    test::RecordingLogger record;
    DriverInfo driverInfo;
    Scripts quiesce;
    backup::BackupManager manager{record.logger};
    Gate gate;
    int threadsLeft = 1000;
    std::atomic<int> backupsMade = 0;
    bool backupsFail = false;
    std::function<void()> whileMaking;
    std::unique_ptr<Engine> engine = makeEngine();
};

TEST_F(EngineTest, LifeWithoutABackup) {
    engine->start();
    EXPECT_FALSE(engine->isBackupRunning());
    engine->stop();
    engine.reset();
    using Lines = std::vector<test::RecordingLogger::Line>;
    EXPECT_EQ(record.lines(), (Lines{{4, "Core engine created"},
                                     {4, "Core engine starting"},
                                     {3, "Core engine started"},
                                     {4, "Core engine stopping"},
                                     {3, "Core engine stopped"},
                                     {4, "Core engine destroyed"}}));
}

TEST_F(EngineTest, NeedsAThread) {
    threadsLeft = 0;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { makeEngine(); }),
              "Core engine could not create backup thread");
    EXPECT_THROW(Engine(record.logger, driverInfo, quiesce, manager, {}, {}), std::bad_function_call);
}

TEST_F(EngineTest, ListsTheScriptsOfTheBaseDirectory) {
    EXPECT_THAT(engine->getQuiesceScripts(), ElementsAre("a-first", "b-second"));
    EXPECT_EQ(quiesce.askedFor, "/etc/tolvu/bek/pps");
}

TEST_F(EngineTest, RunsABackup) {
    gate.open();
    EXPECT_EQ(request(), "backup-1");
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_TRUE(record.has(3, "Core engine was asked to create a backup"));
    EXPECT_TRUE(record.has(3, "Driver version: 4.2.0"));
    EXPECT_TRUE(record.has(3, "Validating backup information..."));
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 3}}));
}

TEST_F(EngineTest, ThreadIsReusedForTheNextBackup) {
    gate.open();
    request();
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_EQ(threadsLeft, 999);
}

TEST_F(EngineTest, BackupWhoseThreadCannotBeMadeStaysKnown) {
    gate.open();
    {
        const test::NoMoreThreads none;
        EXPECT_THROW(request(), std::system_error);
    }
    EXPECT_TRUE(record.hasPart(1, "Exception occurred while trying to spawn backup thread: "));
    EXPECT_FALSE(engine->isBackupRunning());
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 0}})); // active, as it was created
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
    EXPECT_EQ(states().at("backup-2"), 3U);
    engine->stop();
    EXPECT_TRUE(record.has(3, "Core engine stopped"));
}

TEST_F(EngineTest, BackupWhoseThreadCouldNotBeMadeCanBeCancelled) {
    {
        const test::NoMoreThreads none;
        EXPECT_THROW(request(), std::system_error);
    }
    engine->cancelBackup("backup-1");
    gate.open();
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
}

TEST_F(EngineTest, NullSessionIsRefused) {
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { engine->createBackup(nullptr, nullptr, nullptr); }),
              "Cannot start a backup with null backup session object.");
    EXPECT_TRUE(states().empty());
    EXPECT_NO_THROW(request()); // the refused request has released everything
}

TEST_F(EngineTest, NewRequestCancelsTheRunningBackupAndDoesNotWaitForIt) {
    request();
    EXPECT_TRUE(engine->isBackupRunning());
    EXPECT_EQ(request(), "backup-2");
    EXPECT_TRUE(record.has(3, "Backup request: Cancelling already running backup first."));
    EXPECT_TRUE(engine->isBackupRunning());
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 0}, {"backup-2", 0}}));
    gate.open();
    EXPECT_TRUE(waitUntilIdle());
}

TEST_F(EngineTest, BackupThatCancelledItselfIsWaitedFor) {
    request();
    manager.cancelBackup("backup-1"); // as its heartbeat would
    std::future<std::string> next = std::async(std::launch::async, [&] { return request(); });
    while (!record.hasPart(4, "Failed to cancel a backup: Backup with ID backup-1 is already canceled")) {
        std::this_thread::sleep_for(1ms);
    }
    gate.open();
    EXPECT_EQ(next.get(), "backup-2");
    EXPECT_TRUE(waitUntilIdle());
}

TEST_F(EngineTest, CancelMovesTheBackupOutOfTheRunningSlot) {
    const std::string id = request();
    engine->cancelBackup(id);
    EXPECT_FALSE(engine->isBackupRunning());
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{id, 0}}));
    EXPECT_EQ(messageOf<exception::bad_request>([&] { engine->cancelBackup(id); }),
              "Backup with ID " + id + " is already canceled");
    EXPECT_EQ(messageOf<exception::bad_request>([&] { engine->cancelBackup("nobody"); }),
              "A backup with ID nobody does not exist.");
}

TEST_F(EngineTest, CancelOfAnEndedBackupLeavesTheSlotAlone) {
    gate.open();
    const std::string first = request();
    EXPECT_TRUE(waitUntilIdle());
    const std::string second = request();
    EXPECT_TRUE(waitUntilIdle());
    engine->cancelBackup(first);
    EXPECT_EQ(threadsLeft, 999);
}

TEST_F(EngineTest, SlotIsKeptWhenNoThreadCanBeMade) {
    const std::string id = request();
    threadsLeft = 0;
    EXPECT_EQ(messageOf<std::runtime_error>([&] { engine->cancelBackup(id); }),
              "Core engine could not create backup thread");
    EXPECT_TRUE(engine->isBackupRunning());
}

TEST_F(EngineTest, SeventhRequestIsRefusedWhileSixAreWindingDown) {
    for (int i = 1; i <= 7; ++i) {
        request(); // the seventh finds five winding down; with its own there are six
    }
    EXPECT_EQ(messageOf<exception::bad_request>([&] { request(); }),
              "Too many backup requests while waiting for cancelling backup");
    EXPECT_FALSE(record.hasPart(3, "backup-8"));
    EXPECT_TRUE(engine->isBackupRunning());
    BackupStatus status;
    EXPECT_NO_THROW(manager.getStatus("backup-7", status));
    EXPECT_NO_THROW(manager.cancelBackup("backup-7"))
        << "the running one was cancelled by the refused request";
}

TEST_F(EngineTest, EndedCancelledThreadsMakeRoomAgain) {
    for (int i = 1; i <= 7; ++i) {
        request();
    }
    EXPECT_THROW(request(), exception::bad_request);
    gate.open();
    EXPECT_TRUE(waitUntilIdle());
    std::string id;
    for (int i = 0; i < 5000 && id.empty(); ++i) {
        try {
            id = request();
        } catch (const exception::bad_request&) {
            std::this_thread::sleep_for(1ms);
        }
    }
    EXPECT_EQ(id, "backup-8");
}

TEST_F(EngineTest, SecondRequestWaitsForTheFirst) {
    test::BlockingCall making;
    whileMaking = std::ref(making);
    std::future<std::string> first = std::async(std::launch::async, [&] { return request(); });
    making.waitUntilEntered();
    whileMaking = nullptr;
    std::future<std::string> second = std::async(std::launch::async, [&] { return request(); });
    EXPECT_EQ(second.wait_for(50ms), std::future_status::timeout);
    making.release();
    EXPECT_EQ(first.get(), "backup-1");
    EXPECT_EQ(second.get(), "backup-2");
}

TEST_F(EngineTest, SecondRequestGivesUpAfterFiveSeconds) {
    test::BlockingCall making;
    whileMaking = std::ref(making);
    std::future<std::string> first = std::async(std::launch::async, [&] { return request(); });
    making.waitUntilEntered();
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_EQ(messageOf<exception::bad_request>([&] { request(); }),
              "Core engine can't do a backup right now, one is already being started");
    EXPECT_GE(std::chrono::steady_clock::now() - begun, 5s);
    making.release();
    EXPECT_EQ(first.get(), "backup-1");
}

TEST_F(EngineTest, CancelDoesNotWaitForARequest) {
    const std::string running = request();
    test::BlockingCall making;
    whileMaking = std::ref(making);
    std::future<std::string> next = std::async(std::launch::async, [&] { return request(); });
    making.waitUntilEntered();
    EXPECT_THROW(engine->cancelBackup(running), exception::bad_request); // the new request has cancelled it
    EXPECT_FALSE(engine->isBackupRunning());
    making.release();
    EXPECT_EQ(next.get(), "backup-2");
}

TEST_F(EngineTest, StopCancelsAndWaits) {
    request();
    request();
    std::future<void> stopping = std::async(std::launch::async, [&] { engine->stop(); });
    EXPECT_EQ(stopping.wait_for(50ms), std::future_status::timeout);
    gate.open();
    stopping.get();
    EXPECT_TRUE(record.has(3, "BackupManager canceled all backups"));
    EXPECT_TRUE(record.has(3, "Waiting for backup thread to exit..."));
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 1}, {"backup-2", 1}}));
}

TEST_F(EngineTest, StopWaitsForCancelledBackupsToo) {
    engine->cancelBackup(request());
    std::future<void> stopping = std::async(std::launch::async, [&] { engine->stop(); });
    while (!record.has(3, "Waiting for cancelling backups to exit...")) {
        std::this_thread::sleep_for(1ms);
    }
    EXPECT_EQ(stopping.wait_for(0ms), std::future_status::timeout);
    gate.open();
    stopping.get();
    EXPECT_EQ(states(), (std::map<std::string, std::uint32_t>{{"backup-1", 1}}));
}

TEST_F(EngineTest, WaitForBackupThrowsWhatTheThreadThrew) {
    gate.open();
    request();
    EXPECT_NO_THROW(engine->waitForBackup());
    backupsFail = true;
    request();
    EXPECT_EQ(messageOf<std::runtime_error>([&] { engine->waitForBackup(); }), "post backup failed");
}

TEST_F(EngineTest, RequestsCancelsAndQuestionsMayMeet) {
    gate.open();
    std::atomic<bool> done = false;
    std::thread asking([&] {
        while (!done) {
            (void)engine->isBackupRunning();
        }
    });
    std::thread cancelling([&] {
        while (!done) {
            for (const auto& [id, state] : states()) {
                try {
                    engine->cancelBackup(id);
                } catch (const exception::bad_request&) { // already ended or cancelled
                }
            }
        }
    });
    int accepted = 0;
    for (int i = 0; i < 100; ++i) {
        try {
            request();
            ++accepted;
        } catch (const exception::bad_request&) { // too many backups are winding down
        }
    }
    done = true;
    asking.join();
    cancelling.join();
    engine->stop();
    EXPECT_GT(accepted, 0);
    EXPECT_FALSE(engine->isBackupRunning());
}

} // namespace
} // namespace agent::core
