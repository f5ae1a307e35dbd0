#pragma once

#include "core/Engine.h"
#include "core/backup/BackupManager.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupThread.h"
#include "core/backup/IBackupAttributes.h"
#include "core/backup/ISnapshotAttributes.h"
#include "core/script/IQuiesce.h"
#include "os/Mutex.h"
#include "support/RecordingLogger.h"

#include <memory>
#include <string>
#include <utility>

namespace agent::test {

/// A driver that returns what the test sets. An empty status stands for a driver that can't be read.
class FixedDriverInfo : public IDriverInfoProvider {
public:
    [[nodiscard]] std::string getDriverVersion() const override { return "4.2.0"; }
    [[nodiscard]] bool isRebootRequired() const override { return rebootRequired; }
    [[nodiscard]] std::string getDriverStatus() const override {
        if (status.empty()) {
            throw std::runtime_error("no driver");
        }
        return status;
    }

    bool rebootRequired = false;
    std::string status;
};

/// A backup whose status is set by the test, and whose run ends at once.
class FixedBackup : public core::backup::IBackup {
public:
    explicit FixedBackup(std::string id) : id(std::move(id)) {}

    [[nodiscard]] std::string getId() const override { return id; }
    void getStatus(core::backup::BackupStatus& out) const override { out = status; }
    void ping() override { ++pings; }
    [[nodiscard]] bool isActive() const override { return active; }
    [[nodiscard]] bool isFinished() const override { return finished; }
    void cancel() override { cancelled = true; }
    [[nodiscard]] bool isCancelled() const override { return cancelled; }
    void run(std::unique_ptr<core::backup::BackupSession> /*session*/) override {}

    core::backup::BackupStatus status;
    bool active = false;
    bool finished = true;
    bool cancelled = false;
    int pings = 0;

private:
    std::string id;
};

/// A real engine with its backup manager and threads. Its backups do nothing; their attributes and their
/// session are kept for the test.
/// Owns:    the engine with its threads, the manager and the last session.
/// Threads: one.
/// Fails:   `takeTransport` throws for a volume that the backup doesn't have. Call it once after each backup.
class EngineHarness {
    class NoScripts : public core::script::IQuiesce {
    public:
        std::set<std::string> getScripts(const std::string& /*directory*/) override { return {}; }
        void runScript(const std::string& /*script*/, std::uint32_t /*timeout*/, bool /*isPre*/) override {}
    };

    /// A backup that hands its session to the harness, so that the session outlives it.
    class KeptBackup : public FixedBackup {
    public:
        KeptBackup(std::string id, EngineHarness& harness) : FixedBackup(std::move(id)), harness(harness) {}
        void run(std::unique_ptr<core::backup::BackupSession> session) override {
            const os::Lock lock(harness.mutex);
            harness.session = std::move(session);
        }

    private:
        EngineHarness& harness;
    };

    NoScripts quiesce;
    FixedDriverInfo driverInfo;
    os::Mutex mutex;
    std::unique_ptr<core::backup::BackupSession> session GUARDED_BY(mutex);

public:
    explicit EngineHarness(info::Logger& logger)
        : manager(logger),
          engine(
              logger, driverInfo, quiesce, manager,
              [&logger] { return std::make_unique<core::backup::BackupThread>(logger); },
              [this](auto attributes, auto snapshot) {
                  backupAttributes = std::move(attributes);
                  snapshotAttributes = std::move(snapshot);
                  return std::make_unique<KeptBackup>("backup-" + std::to_string(++backupsMade), *this);
              }) {}

    /// The transport, not yet connected, that the last backup got for a volume. Waits until the backup has
    /// run.
    std::shared_ptr<core::ITransport> takeTransport(const std::string& uuid) {
        engine.waitForBackup();
        const os::Lock lock(mutex);
        session->open();
        return std::exchange(session, nullptr)->getTransport(uuid);
    }

    core::backup::BackupManager manager;
    std::shared_ptr<core::backup::IBackupAttributes> backupAttributes;     ///< Of the last backup.
    std::shared_ptr<core::backup::ISnapshotAttributes> snapshotAttributes; ///< Of the last backup.
    int backupsMade = 0;
    core::Engine engine; // last, so that its threads end before the other members are destroyed
};

} // namespace agent::test
