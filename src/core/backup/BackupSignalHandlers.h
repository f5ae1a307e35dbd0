#pragma once

#include "core/backup/IBackup.h"
#include "info/log/Logger.h"

namespace agent::core::backup {

/// Changes the process's signal handling during a backup. The first fault signal of each kind, and the first
/// SIGPIPE, SIGALRM and SIGIO, cancels the backup instead of ending the process. SIGCHLD is ignored, so the
/// kernel reaps children that end.
///
/// A broken pipe thus ends the backup at its next cancellation point. A fault such as SIGSEGV is logged with
/// a backtrace; the faulting instruction then runs again, this time with the default action. The handler
/// logs, which is not async-signal-safe: a fault inside the logger itself can hang the faulting thread.
///
/// Signal dispositions belong to the process. Two runs overlap while a cancelled backup ends. Then the later
/// run owns the handlers, and the run that ends first restores the dispositions from before both.
///
/// Owns:    the dispositions; the destructor restores them. Logger and backup must outlive the object.
/// Threads: any; installing and restoring are serialised. The handler itself takes no lock of this class; the
///          destructor waits for handlers that run on other threads.
/// Fails:   never.
class BackupSignalHandlers {
public:
    BackupSignalHandlers(info::Logger& logger, IBackup& backup);
    BackupSignalHandlers(const BackupSignalHandlers&) = delete;
    BackupSignalHandlers& operator=(const BackupSignalHandlers&) = delete;
    ~BackupSignalHandlers();

    /// Reports the signal and cancels the backup; runs inside the signal handler.
    void handle(int signal);

private:
    void logBacktrace(const std::string& thread);

    info::Logger& logger;
    IBackup& backup;
};

} // namespace agent::core::backup
