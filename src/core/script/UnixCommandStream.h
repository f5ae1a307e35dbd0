#pragma once

#include "core/script/ICommandStream.h"
#include "os/FileDescriptor.h"

#include <chrono>
#include <optional>
#include <sys/types.h>

namespace agent::core::script {

/// A shell command as a child process, with its standard output and standard error in one pipe.
/// Owns:    the pipe's reading end and the child; the destructor blocks until the child has ended, and reaps
///          it.
/// Threads: one stream at a time in the whole process: during each operation, SIGCHLD has its default action;
///          after that, the previous action is restored.
/// Fails:   with PosixError. If the restored action ignores SIGCHLD, the kernel reaps a child that ends
///          between two operations: `wait`, `kill` and `hasExited` then fail, but reading still works.
///
/// The child starts with no signal blocked or ignored, and with none of the agent's other descriptors. A kill
/// only ends the shell's own process, or the command that replaced it through `exec`. Processes that it has
/// started live on, and may hold the pipe open; then only the time-out ends the wait.
class UnixCommandStream : public ICommandStream {
public:
    UnixCommandStream(const std::string& command, const std::string& directory, bool killOnDestroy);
    UnixCommandStream(const UnixCommandStream&) = delete;
    UnixCommandStream& operator=(const UnixCommandStream&) = delete;
    ~UnixCommandStream() override; // NOLINT(bugprone-exception-escape)

    bool waitForOutput(std::int64_t& remaining) override;
    bool readChar(char* byte) override;
    /// Reads in steps until a step is short. If the output ends exactly with a full step, the next read
    /// blocks until the child writes or exits; after a `waitForOutput`, at most for the time that call left
    /// over. Returns at most about 1 MiB; the next call reads the rest.
    bool readAvailable(std::string& out) override;
    int wait() override;
    void kill() override;
    [[nodiscard]] bool isEof() const override { return eof; }
    [[nodiscard]] bool isReaped() const override { return pid == 0; }
    [[nodiscard]] bool hasExited() const override;

private:
    /// How much time the last `waitForOutput` left to its caller, and since when.
    struct TimeLeft {
        std::chrono::steady_clock::time_point from;
        std::int64_t microseconds;
    };

    [[nodiscard]] bool isChild() const noexcept;
    [[nodiscard]] bool canReadMore() const noexcept;

    const bool killOnDestroy;
    os::FileDescriptor readFd;
    os::FileDescriptor writeFd; // open in the constructor only; the child keeps its own copy
    ::pid_t pid = 0;            // 0 once reaped
    bool eof = false;
    std::optional<TimeLeft> timeLeft;
};

} // namespace agent::core::script
