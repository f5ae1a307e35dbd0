#include "core/backup/BackupSignalHandlers.h"

#include "os/Mutex.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <iostream>
#include <map>
#include <memory>
#include <sstream>
#include <thread>

namespace agent::core::backup {

namespace {

constexpr std::array caughtSignals = {SIGFPE,  SIGSEGV, SIGILL,  SIGABRT,   SIGBUS,
                                      SIGPIPE, SIGSYS,  SIGALRM, SIGSTKFLT, SIGIO};

/// Signal dispositions belong to the process, so this state can't belong to a single run.
struct ProcessSignals {
    os::Mutex mutex;                            // held while installing and restoring, never in a handler
    std::atomic<BackupSignalHandlers*> current; // a signal cancels the backup of this object
    std::atomic<int> handling = 0;              // running handlers, which may be using `current`
    std::map<int, struct sigaction> savedActions GUARDED_BY(mutex); // the actions before the first run

    /// Saves the previous action for the first of overlapping runs only: that is the action to restore.
    void install(bool isFirst, int signal, void (*handler)(int), int flags) REQUIRES(mutex) {
        struct sigaction action{};
        action.sa_handler = handler;
        action.sa_flags = flags;
        sigemptyset(&action.sa_mask);
        struct sigaction previous{};
        ::sigaction(signal, &action, &previous);
        if (isFirst) {
            savedActions[signal] = previous;
        }
    }

    static ProcessSignals& instance() {
        // Never destroyed: a handler may still run while the process exits.
        // NOLINTNEXTLINE(cppcoreguidelines-avoid-non-const-global-variables)
        static auto* const signals = new ProcessSignals; // NOLINT(resources): lives as long as the process
        return *signals;
    }
};

/// Counts a handler while it runs, so that the end of a run can wait for it, and restores the interrupted
/// code's `errno`.
class Handling {
public:
    Handling() { ++ProcessSignals::instance().handling; }
    Handling(const Handling&) = delete;
    Handling& operator=(const Handling&) = delete;
    ~Handling() {
        --ProcessSignals::instance().handling;
        errno = interruptedError;
    }

private:
    const int interruptedError = errno;
};

extern "C" void onBackupSignal(int signal) {
    const Handling handling;
    BackupSignalHandlers* const current = ProcessSignals::instance().current;
    if (current == nullptr) {
        std::cout << "~~Logging Error~~ signal handler called on unregistered thread??" << std::endl;
        return;
    }
    current->handle(signal);
}

std::string callingThread() {
    std::ostringstream text;
    text << std::this_thread::get_id();
    return text.str();
}

bool isFault(int signal) {
    switch (signal) {
    case SIGILL:
    case SIGABRT:
    case SIGBUS:
    case SIGFPE:
    case SIGSEGV:
    case SIGSTKFLT:
        return true;
    default:
        return false;
    }
}

} // namespace

BackupSignalHandlers::BackupSignalHandlers(info::Logger& logger, IBackup& backup)
    : logger(logger), backup(backup) {
    ProcessSignals& signals = ProcessSignals::instance();
    const os::Lock lock(signals.mutex);
    const bool isFirst = signals.current.exchange(this) == nullptr; // before any signal can come in
    for (const int signal : caughtSignals) {
        signals.install(isFirst, signal, &onBackupSignal, static_cast<int>(SA_RESETHAND | SA_NODEFER));
    }
    signals.install(isFirst, SIGCHLD, SIG_IGN, 0);
}

BackupSignalHandlers::~BackupSignalHandlers() {
    ProcessSignals& signals = ProcessSignals::instance();
    {
        const os::Lock lock(signals.mutex);
        for (const int signal : caughtSignals) {
            ::sigaction(signal, &signals.savedActions[signal], nullptr);
        }
        ::sigaction(SIGCHLD, &signals.savedActions[SIGCHLD], nullptr);
        signals.current = nullptr;
    }
    // A handler on any thread may still be logging its signal, and cancels this backup after that.
    while (signals.handling > 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void BackupSignalHandlers::handle(int signal) {
    const std::string thread = callingThread();
    const char* const name = strsignal(signal); // NOLINT(concurrency-mt-unsafe): of signals with a fixed text
    if (isFault(signal)) {
        logger.log(info::level::error, "Backup thread - %s (%d)", name, signal);
        logBacktrace(thread);
    } else if (signal == SIGPIPE) {
        logger.log(info::level::error, "Broken pipe during backup. TID: %s", thread.c_str());
    } else {
        logger.log(info::level::error, "Failure on signal: %s (%d). TID: %s", name, signal, thread.c_str());
    }
    backup.cancel();
}

void BackupSignalHandlers::logBacktrace(const std::string& thread) {
    std::array<void*, 100> frames{};
    const int count = ::backtrace(frames.data(), static_cast<int>(frames.size()));
    const std::unique_ptr<char*, decltype(&std::free)> symbols(::backtrace_symbols(frames.data(), count),
                                                               &std::free);
    if (!symbols) {
        return;
    }
    for (int frame = 0; frame < count; ++frame) {
        logger.log(info::level::info, "TID: %s - %s", thread.c_str(), symbols.get()[frame]);
    }
}

} // namespace agent::core::backup
