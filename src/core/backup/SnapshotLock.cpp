#include "core/backup/SnapshotLock.h"

#include "common/PosixError.h"
#include "info/log/Reason.h"

#include <cerrno>
#include <fcntl.h>
#include <stdexcept>
#include <sys/file.h>
#include <thread>

namespace agent::core::backup {

namespace {

constexpr std::chrono::milliseconds pollInterval{100};
/// Anybody who can open the file can hold its lock.
constexpr mode_t lockFileMode = 0600;

} // namespace

SnapshotLock::State SnapshotLock::tryAcquire() {
    if (state == State::mine) {
        return state;
    }
    if (!file) {
        file =
            os::FileDescriptor(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lockFileMode));
    }
    if (file && ::flock(file.get(), LOCK_EX | LOCK_NB) == 0) {
        state = State::mine;
    } else {
        state = file && errno == EWOULDBLOCK ? State::others : State::unguarded;
    }
    return state;
}

void SnapshotLock::acquire(info::Logger& logger, ICancel& cancel, std::chrono::milliseconds timeout) {
    if (tryAcquire() == State::unguarded) {
        const int failure = errno;
        info::LogEntry(logger, info::level::warning)
            << "Could not lock " << path
            << " against other programs that take snapshots: " << PosixError::describe(failure);
    }
    if (state != State::others) {
        return;
    }
    info::LogEntry(logger, info::level::info) << "Waiting for another program to end its snapshots...";
    const auto end = std::chrono::steady_clock::now() + timeout;
    while (tryAcquire() == State::others) {
        cancel.check();
        if (std::chrono::steady_clock::now() >= end) {
            throw info::WithReason<std::runtime_error>(info::reason("snapshot-failed"),
                                                       "Another program doesn't end its snapshots!");
        }
        std::this_thread::sleep_for(pollInterval);
    }
}

} // namespace agent::core::backup
