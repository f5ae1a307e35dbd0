#pragma once

#include "core/Engine.h"
#include "core/backup/BackupManager.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupThread.h"
#include "os/Mutex.h"
#include "support/RecordingLogger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <map>
#include <stdexcept>
#include <thread>

namespace agent::core {

using backup::BackupSession;
using backup::BackupStatus;
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
        const os::Lock lock(mutex);
        opened = true;
        changed.notify_all();
    }
    void pass() {
        os::Lock lock(mutex);
        while (!opened) {
            lock.wait(changed);
        }
    }

private:
    os::Mutex mutex;
    std::condition_variable changed;
    bool opened GUARDED_BY(mutex) = false;
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

} // namespace agent::core
