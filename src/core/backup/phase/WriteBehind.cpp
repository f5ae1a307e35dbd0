#include "core/backup/phase/WriteBehind.h"

#include <csignal>
#include <system_error>
#include <utility>

namespace agent::core::backup::phase {

namespace {

/// Blocks signals for a thread that is started while the object exists, so that the process's other threads
/// keep handling them. The signals of a thread's own faults stay unblocked.
class NonFaultSignalsBlocked {
public:
    NonFaultSignalsBlocked() {
        sigset_t others;
        sigfillset(&others);
        for (const int own : {SIGILL, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) {
            sigdelset(&others, own);
        }
        pthread_sigmask(SIG_BLOCK, &others, &previous);
    }
    NonFaultSignalsBlocked(const NonFaultSignalsBlocked&) = delete;
    NonFaultSignalsBlocked& operator=(const NonFaultSignalsBlocked&) = delete;
    ~NonFaultSignalsBlocked() { pthread_sigmask(SIG_SETMASK, &previous, nullptr); }

private:
    sigset_t previous{};
};

} // namespace

WriteBehind::WriteBehind(Write write) : write(std::move(write)) {}

WriteBehind::~WriteBehind() {
    {
        const os::Lock lock(mutex);
        isStopped = true;
    }
    changed.notify_all();
    if (thread.joinable()) {
        thread.join();
    }
}

void WriteBehind::begin(const Chunk& chunk) {
    waitOrThrow();
    if (!std::exchange(isStarted, true)) {
        start();
    }
    if (!thread.joinable()) {
        write(chunk);
        return;
    }
    const os::Lock lock(mutex);
    pending = chunk;
    changed.notify_all();
}

void WriteBehind::waitOrThrow() {
    if (!waitUntilWritten()) {
        const os::Lock lock(mutex);
        std::rethrow_exception(std::exchange(failure, nullptr));
    }
}

bool WriteBehind::waitUntilWritten() {
    os::Lock lock(mutex);
    while (pending) {
        lock.wait(changed);
    }
    return !failure;
}

void WriteBehind::start() {
    const NonFaultSignalsBlocked signalsBlocked;
    try {
        thread = std::thread([this] { work(); });
    } catch (const std::system_error&) { // NOLINT(bugprone-empty-catch): slower without, but no worse
    }
}

void WriteBehind::work() {
    os::Lock lock(mutex);
    while (true) {
        while (!pending && !isStopped) {
            lock.wait(changed);
        }
        if (!pending) {
            return;
        }
        const Chunk chunk = *pending;
        lock.unlock();
        const std::exception_ptr thrown = tryWrite(chunk);
        lock.lock();
        failure = thrown;
        pending.reset();
        changed.notify_all();
    }
}

std::exception_ptr WriteBehind::tryWrite(const Chunk& chunk) const noexcept {
    try {
        write(chunk);
        return nullptr;
    } catch (...) { // a cancelled operation isn't a std::exception
        return std::current_exception();
    }
}

} // namespace agent::core::backup::phase
