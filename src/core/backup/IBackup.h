#pragma once

#include "core/backup/BackupStatus.h"

#include <memory>
#include <string>

namespace agent::core::backup {

class BackupSession;

/// One backup, from its request until the backup manager forgets it.
/// Owns:    its status and the objects that its run uses.
/// Threads: `run` on the backup's thread, once; everything else from any thread at any time.
/// Fails:   a failure or a cancel of the run shows in the status; `run` itself throws for a null session, and
///          when the steps that follow every backup fail.
class IBackup {
public:
    virtual ~IBackup() = default;
    [[nodiscard]] virtual std::string getId() const = 0;
    virtual void getStatus(BackupStatus& out) const = 0;
    /// Feeds the backup's heartbeat: the appliance is still watching.
    virtual void ping() = 0;
    /// True while a volume is neither finished nor failed.
    [[nodiscard]] virtual bool isActive() const = 0;
    /// True if every volume is finished.
    [[nodiscard]] virtual bool isFinished() const = 0;
    virtual void cancel() = 0;
    [[nodiscard]] virtual bool isCancelled() const = 0;
    virtual void run(std::unique_ptr<BackupSession> session) = 0;
};

} // namespace agent::core::backup
