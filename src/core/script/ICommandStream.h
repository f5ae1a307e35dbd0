#pragma once

#include <cstdint>
#include <string>

namespace agent::core::script {

/// A running command and what it prints, standard output and standard error together.
/// Owns:    the command; what happens to a running one with the object is decided when it is started.
/// Threads: one at a time.
/// Fails:   with PosixError; the stream stays usable and the next call tries again.
class ICommandStream {
public:
    virtual ~ICommandStream() = default;

    /// Waits until output or its end can be read, for at most `remaining` microseconds, and takes the time
    /// that it took off `remaining`. False when the time is used up.
    virtual bool waitForOutput(std::int64_t& remaining) = 0;
    /// Reads one byte, blocking; `*byte` is 0 at the end of the output. True while not at the end.
    virtual bool readChar(char* byte) = 0;
    /// Replaces `out` by what can be read. Blocks until there is something. False at the end of the output.
    virtual bool readAvailable(std::string& out) = 0;
    /// Blocks until the command has ended. The exit status, the number of the signal that ended it, or -1;
    /// 0 when it was reaped before.
    virtual int wait() = 0;
    /// Ends the command at once; it has still to be waited for.
    virtual void kill() = 0;
    [[nodiscard]] virtual bool isEof() const = 0;
    /// True once `wait` has returned.
    [[nodiscard]] virtual bool isReaped() const = 0;
    /// True if the command has ended, reaped or not. Doesn't block.
    [[nodiscard]] virtual bool hasExited() const = 0;
};

} // namespace agent::core::script
