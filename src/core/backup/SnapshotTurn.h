#pragma once

#include "core/operation/ICancel.h"
#include "info/log/Logger.h"
#include "os/FileDescriptor.h"

#include <chrono>
#include <string>

namespace agent::core::backup {

/// Whose turn it is to take snapshots and to end them: a machine has one driver and one place to mount them,
/// and what one program begins another one would take for a leftover and destroy. The turn is a lock on a
/// file, which the kernel takes back from a process however that ends.
/// Owns:    the open file, and with it the turn, until it goes.
/// Threads: one at a time.
/// Fails:   `wait` throws; nothing else does.
class SnapshotTurn {
public:
    /// A file that can't be locked is no reason for a backup to fail: it goes on `unguarded`.
    enum class State { none, mine, others, unguarded };

    static constexpr const char* usualPath = "/run/bekd-snapshots.lock";
    /// Whoever else takes snapshots has ended them long before that.
    static constexpr std::chrono::seconds longestWait{900};

    explicit SnapshotTurn(std::string path = usualPath) : path(std::move(path)) {}

    /// Takes the turn if nobody has it; returns at once.
    State take();
    /// Takes the turn, and waits for it while another process has it. Throws what `cancel` throws, and
    /// std::runtime_error when `longest` is over.
    void wait(info::Logger& logger, ICancel& cancel, std::chrono::milliseconds longest = longestWait);

private:
    std::string path;
    os::FileDescriptor file;
    State state = State::none;
};

} // namespace agent::core::backup
