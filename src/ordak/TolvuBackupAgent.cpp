#include "ordak/TolvuBackupAgent.h"

#include "common/TerminationSignals.h"

#include <deque>
#include <functional>
#include <stdexcept>
#include <utility>

namespace agent::ordak {

/// What has to be done to stop the services that run, in the order of their start.
class TolvuBackupAgent::StopGuards {
public:
    StopGuards() = default;
    StopGuards(const StopGuards&) = delete;
    StopGuards& operator=(const StopGuards&) = delete;

    /// The way out of a start that failed: whatever has been started is stopped, oldest first. The failure
    /// that leads here is what the caller must hear of, so one of these is dropped.
    ~StopGuards() {
        for (; !guards.empty(); guards.pop_front()) {
            try {
                guards.front()();
            } catch (...) { // NOLINT(bugprone-empty-catch)
            }
        }
    }

    void add(IService& service) {
        guards.emplace_back([&service] { service.stop(); });
    }

    /// Newest first. A guard that throws counts as run.
    void stopAll() {
        while (!guards.empty()) {
            const std::function<void()> stop = std::move(guards.back());
            guards.pop_back();
            stop();
        }
    }

private:
    std::deque<std::function<void()>> guards;
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
    auto started = std::make_unique<StopGuards>();
    for (IService* service : services) {
        service->start();
        started->add(*service);
    }
    // From here on a signal's handler can stop the agent, and would log while this thread has the log's lock.
    const TerminationSignalsBlocked lastLineFirst;
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
