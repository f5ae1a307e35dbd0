#pragma once

#include "common/IService.h"
#include "common/config/Config.h"
#include "db/IDataMigrator.h"
#include "info/log/Logger.h"

#include <memory>
#include <vector>

namespace agent::ordak {

/// The agent as one service: starts its services in order and stops them newest first.
/// Owns:    the list of the running services; the services themselves must outlive it.
/// Threads: one thread calls `start`, and afterwards one calls `stop`; there are no locks.
/// Fails:   if a service can't start, `start` stops those before it and throws that service's exception. If a
///          service can't stop, `stop` throws its exception; another call of `stop` goes on with the rest.
class TolvuBackupAgent : public IService {
public:
    /// `services` in the order of their start.
    TolvuBackupAgent(info::Logger& logger, db::IDataMigrator& migrator, Config& config,
                     std::vector<IService*> services);
    TolvuBackupAgent(const TolvuBackupAgent&) = delete;
    TolvuBackupAgent& operator=(const TolvuBackupAgent&) = delete;
    ~TolvuBackupAgent() override;

    void start() override;
    void stop() override;

private:
    class RunningServices;

    info::Logger& logger;
    db::IDataMigrator& migrator;
    Config& config;
    std::vector<IService*> services;
    std::unique_ptr<RunningServices> running; // null while the agent is not started
};

} // namespace agent::ordak
