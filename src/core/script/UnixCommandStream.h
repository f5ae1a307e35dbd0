#pragma once

#include "core/script/ICommandStream.h"
#include "os/FileDescriptor.h"

#include <chrono>
#include <optional>
#include <sys/types.h>

namespace agent::core::script {

/// A shell command as a child process, its standard output and standard error in one pipe.
/// Owns:    the pipe's reading end and the child; the destructor reaps it, and blocks until it has ended.
/// Threads: one stream at a time in the whole process: each operation gives SIGCHLD its default action for
///          as long as it runs, and puts the former one back.
/// Fails:   with PosixError. While SIGCHLD is ignored, the kernel itself reaps a child that ends between two
///          operations: `wait`, `kill` and `hasExited` then fail, reading goes on undisturbed.
///
/// The child starts with no signal blocked and none ignored, and with none of the agent's other descriptors.
/// Only the shell's own process is killed, or the command that the shell has replaced itself by (`exec`).
/// What that has started in turn lives on, and may hold the pipe open: there the time-out alone ends the
/// wait.
class UnixCommandStream : public ICommandStream {
public:
    UnixCommandStream(const std::string& command, const std::string& directory, bool killOnDestroy);
    UnixCommandStream(const UnixCommandStream&) = delete;
    UnixCommandStream& operator=(const UnixCommandStream&) = delete;
    ~UnixCommandStream() override; // NOLINT(bugprone-exception-escape)

    bool waitForOutput(std::int64_t& remaining) override;
    bool readChar(char* byte) override;
    /// Reads in steps until one comes back short, so output that ends on a full step is followed by a read
    /// that blocks until the child writes or exits; after a `waitForOutput`, no longer than what that left of
    /// its time. A child that never stops writing is cut off at 1 MiB, and the rest left to the next call.
    bool readAvailable(std::string& out) override;
    int wait() override;
    void kill() override;
    [[nodiscard]] bool isEof() const override { return eof; }
    [[nodiscard]] bool isReaped() const override { return pid == 0; }
    [[nodiscard]] bool hasExited() const override;

private:
    /// The time that the last `waitForOutput` left to its caller, and when.
    struct TimeLeft {
        std::chrono::steady_clock::time_point from;
        std::int64_t microseconds;
    };

    [[nodiscard]] bool isChild() const noexcept;
    [[nodiscard]] bool mayReadOn() const noexcept;

    const bool killOnDestroy;
    os::FileDescriptor readFd;
    os::FileDescriptor writeFd; // held in the constructor only; the child has the other copy
    ::pid_t pid = 0;            // 0 once reaped
    bool eof = false;
    std::optional<TimeLeft> timeLeft;
};

} // namespace agent::core::script
