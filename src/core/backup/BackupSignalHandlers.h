#pragma once

#include "core/backup/IBackup.h"
#include "info/log/Logger.h"

namespace agent::core::backup {

/// While it lives, signals that mean a fault cancel a backup instead of ending the process outright, each
/// once; and children that end are reaped by the kernel.
///
/// A broken pipe thus ends the backup at its next cancellation point. A fault such as SIGSEGV is written to
/// the log with a backtrace, and then happens again with the default action in force. The handler logs, which
/// is not async-signal-safe: a fault inside the logger itself can hang the thread that has faulted.
///
/// Signal dispositions belong to the process. With two runs at once, which happens while a cancelled backup
/// winds down, the later run owns the handlers, and whichever ends first puts back what was in force before
/// both.
///
/// Owns:    the dispositions; the destructor restores them. Logger and backup must outlive the object.
/// Threads: any; installing and restoring are serialised. The handler itself takes no lock of this class; the
///          destructor waits for handlers at work on other threads.
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
