#pragma once

#include <cstdint>
#include <string>

namespace agent::core::script {

/// A running command and its output: standard output and standard error together.
/// Owns:    the child process; the destructor kills it or waits for it, as chosen when it was started.
/// Threads: one at a time.
/// Fails:   with PosixError; the stream stays usable, and the next call tries again.
class ICommandStream {
public:
    virtual ~ICommandStream() = default;

    /// Waits at most `remaining` microseconds until output or end-of-file can be read, and subtracts the
    /// elapsed time from `remaining`. Returns false on timeout.
    virtual bool waitForOutput(std::int64_t& remaining) = 0;
    /// Reads one byte, blocking. At the end of the output, sets `*byte` to 0 and returns false.
    virtual bool readChar(char* byte) = 0;
    /// Replaces `out` with the output that can be read. Blocks until there is some. Returns false at the end
    /// of the output.
    virtual bool readAvailable(std::string& out) = 0;
    /// Blocks until the command has ended. Returns its exit status, the number of the signal that ended it,
    /// or -1; 0 if it was reaped before.
    virtual int wait() = 0;
    /// Kills the command at once; the caller must still call `wait`.
    virtual void kill() = 0;
    [[nodiscard]] virtual bool isEof() const = 0;
    /// True once `wait` has returned.
    [[nodiscard]] virtual bool isReaped() const = 0;
    /// True if the command has ended, reaped or not. Doesn't block.
    [[nodiscard]] virtual bool hasExited() const = 0;
};

} // namespace agent::core::script
