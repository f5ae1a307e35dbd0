#include "bench/support/Program.h"
#include "core/Engine.h"
#include "core/Heartbeat.h"
#include "core/backup/Backup.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupManager.h"
#include "core/backup/BackupSession.h"
#include "core/backup/BackupThread.h"
#include "core/backup/SnapshotAttributes.h"
#include "core/operation/CancelableOperation.h"
#include "support/BackupHarness.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <future>
#include <string>
#include <thread>

/// Measures how long the appliance's request takes to become a running backup: from createBackup to the first
/// phase's line in the log. The peer is the least that any backup needs, a new thread that has started to
/// run.
namespace agent::bench {
namespace {

class DriverInfo : public IDriverInfoProvider {
public:
    [[nodiscard]] std::string getDriverVersion() const override { return "0"; }
    [[nodiscard]] bool isRebootRequired() const override { return false; }
    [[nodiscard]] std::string getDriverStatus() const override { return "{}"; }
};

class NoScripts : public core::script::IQuiesce {
public:
    std::set<std::string> getScripts(const std::string& /*directory*/) override { return {}; }
    void runScript(const std::string& /*script*/, std::uint32_t /*timeout*/, bool /*isPre*/) override {}
};

/// An engine whose backups end in their first phase, as there is no volume.
class StartedEngine {
public:
    /// Starts a backup and waits for its end. Returns the seconds until the first phase's line in the log.
    double run() {
        firstPhase = {};
        auto session = std::make_unique<core::backup::BackupSession>(logger);
        const auto attributes = std::make_shared<core::backup::BackupAttributes>(
            std::unordered_map<std::string, core::backup::VolumeAttributes>{{"volume", {}}});
        const auto snapshots =
            std::make_shared<core::backup::SnapshotAttributes>(0, std::vector<std::string>{}, 0);
        const auto begun = std::chrono::steady_clock::now();
        engine.createBackup(std::move(session), attributes, snapshots);
        engine.waitForBackup();
        return std::chrono::duration<double>(firstPhase - begun).count();
    }

private:
    std::unique_ptr<core::backup::IBackup> makeBackup(auto attributes, auto snapshots) {
        auto heartbeat = std::make_unique<core::Heartbeat>(std::chrono::hours(1));
        auto operation =
            std::make_unique<core::CancelableOperation>([watched = heartbeat.get()] { watched->check(); });
        return std::make_unique<core::backup::Backup>(logger, volumes, quiesce, std::move(attributes),
                                                      std::move(snapshots), database.provider,
                                                      std::move(operation), std::move(heartbeat), config, "");
    }

    std::chrono::steady_clock::time_point
        firstPhase; // written by the backup's thread, read when it has ended
    info::Logger logger{[this](const std::string& message, int, info::LogTime) {
        if (message.starts_with("Beginning execution of the Populate")) {
            firstPhase = std::chrono::steady_clock::now();
        }
    }};
    DriverInfo driverInfo;
    NoScripts quiesce;
    core::backup::BackupManager manager{logger};
    test::StagedVolumes volumes{logger};
    test::TestDatabase database;
    test::HolePunchOption config;
    core::Engine engine{
        logger,
        driverInfo,
        quiesce,
        manager,
        [this] { return std::make_unique<core::backup::BackupThread>(logger); },
        [this](auto attributes, auto snapshots) { return makeBackup(attributes, snapshots); }};
};

void createBackup(benchmark::State& state) {
    StartedEngine engine;
    for (auto step : state) {
        state.SetIterationTime(engine.run());
    }
}

void startThread(benchmark::State& state) {
    for (auto step : state) {
        const auto begun = std::chrono::steady_clock::now();
        std::chrono::steady_clock::time_point running;
        std::async(std::launch::async, [&] { running = std::chrono::steady_clock::now(); }).get();
        state.SetIterationTime(std::chrono::duration<double>(running - begun).count());
    }
}

BENCHMARK(createBackup)->UseManualTime();
BENCHMARK(startThread)->UseManualTime();

void printRatio(const TimingReporter& reporter) {
    reporter.compare("createBackup", "startThread", [](double own, double peer) {
        std::printf("createBackup: %.1f us to the first phase, a thread alone %.1f us, ratio %.1f\n",
                    1e6 * own, 1e6 * peer, own / peer);
    });
}

} // namespace
} // namespace agent::bench

int main(int argumentCount, char** arguments) {
    agent::bench::Program program(argumentCount, arguments);
    agent::bench::printRatio(program.run());
}
