#pragma once

#include "core/operation/ICancel.h"
#include "info/log/Logger.h"
#include "os/FileDescriptor.h"

#include <chrono>
#include <string>

namespace agent::core::backup {

/// A lock between processes, held while snapshots are taken, used and ended. A machine has one driver and one
/// directory to mount snapshots in, and without the lock a program would take another program's snapshots for
/// leftovers and destroy them. It is a flock(2) on a file, which the kernel releases however the process
/// ends.
/// Owns:    the open file, and with it the lock, until the object is destroyed.
/// Threads: one at a time.
/// Fails:   `acquire` throws; nothing else does.
class SnapshotLock {
public:
    /// `mine` and `others` say which process holds the lock. If the file can't be locked at all, the backup
    /// goes on `unguarded` rather than fail.
    enum class State { none, mine, others, unguarded };

    static constexpr const char* usualPath = "/run/bekd-snapshots.lock";
    /// Other programs that take snapshots end them much sooner than this.
    static constexpr std::chrono::seconds maxWait{900};

    explicit SnapshotLock(std::string path = usualPath) : path(std::move(path)) {}

    /// Takes the lock if it is free; returns at once.
    State tryAcquire();
    /// Takes the lock, and waits while another process holds it. Throws what `cancel` throws, and
    /// std::runtime_error after `timeout`.
    void acquire(info::Logger& logger, ICancel& cancel, std::chrono::milliseconds timeout = maxWait);

private:
    std::string path;
    os::FileDescriptor file;
    State state = State::none;
};

} // namespace agent::core::backup
