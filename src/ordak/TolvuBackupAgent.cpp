#include "ordak/TolvuBackupAgent.h"

#include "common/TerminationSignals.h"

#include <deque>
#include <functional>
#include <stdexcept>
#include <utility>

namespace agent::ordak {

/// One function for each running service, which stops it, in the order in which the services were started.
class TolvuBackupAgent::RunningServices {
public:
    RunningServices() = default;
    RunningServices(const RunningServices&) = delete;
    RunningServices& operator=(const RunningServices&) = delete;

    /// If the start has failed, stops the services that have been started, oldest first. Swallows exceptions,
    /// because the caller must get the exception that has made the start fail.
    ~RunningServices() {
        for (; !stopFunctions.empty(); stopFunctions.pop_front()) {
            try {
                stopFunctions.front()();
            } catch (...) { // NOLINT(bugprone-empty-catch)
            }
        }
    }

    void add(IService& service) {
        stopFunctions.emplace_back([&service] { service.stop(); });
    }

    /// Stops the newest service first. A function that throws isn't called again.
    void stopAll() {
        while (!stopFunctions.empty()) {
            const std::function<void()> stop = std::move(stopFunctions.back());
            stopFunctions.pop_back();
            stop();
        }
    }

private:
    std::deque<std::function<void()>> stopFunctions;
};

TolvuBackupAgent::TolvuBackupAgent(info::Logger& logger, db::IDataMigrator& migrator, Config& config,
                                   std::vector<IService*> services)
    : logger(logger), migrator(migrator), config(config), services(std::move(services)) {
    info::LogEntry(logger, info::level::debug) << "Agent daemon created";
}

TolvuBackupAgent::~TolvuBackupAgent() {
    info::LogEntry(logger, info::level::debug) << "Agent daemon destroyed";
}

void TolvuBackupAgent::start() {
    if (running) {
        throw std::runtime_error("Agent daemon already started");
    }
    info::LogEntry(logger, info::level::debug) << "Agent daemon starting";
    if (!migrator.migrate(config)) {
        info::LogEntry(logger, info::level::error) << "Failed to migrate legacy database!";
    }
    auto started = std::make_unique<RunningServices>();
    for (IService* service : services) {
        service->start();
        started->add(*service);
    }
    // As soon as `running` is set, the signal handler can stop the agent. It must not interrupt this thread
    // while the last line is logged: the handler logs, too, and would wait for the logger's mutex, which this
    // thread holds.
    const TerminationSignalsBlocked signalsBlocked;
    running = std::move(started);
    info::LogEntry(logger, info::level::info) << "Agent daemon started";
}

void TolvuBackupAgent::stop() {
    if (!running) {
        throw std::runtime_error("Agent daemon not started yet");
    }
    info::LogEntry(logger, info::level::debug) << "Agent daemon stopping";
    running->stopAll();
    running.reset();
    info::LogEntry(logger, info::level::info) << "Agent daemon stopped";
}

} // namespace agent::ordak
