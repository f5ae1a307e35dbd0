#pragma once

#include "os/FileDescriptor.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace zephane {

struct ProcessEnd {
    int signal = 0; ///< the signal that ended it, 0 if none did
    int status = 0; ///< its exit status, if no signal ended it

    [[nodiscard]] std::string inWords() const;
};

/// A program that ends with the thread that has started it, however that thread ends.
/// Owns:    the process, and a pidfd of it, which never refers to another process. If the process is still
///          running, the destructor kills it, without waiting for its end.
/// Threads: one at a time; the thread that constructs it must live as long as the process is needed.
/// Fails:   the constructor throws std::system_error; nothing else fails.
class ChildProcess {
public:
    /// `program` is a path. The process gets a few environment variables and no input; its stdout and stderr
    /// go to `output`, and it inherits no other file descriptor.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const os::FileDescriptor& output);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    /// Becomes readable when the process has ended.
    [[nodiscard]] int descriptor() const noexcept { return process.get(); }
    /// Asks the kernel, so the answer is always up to date. Any thread may call it.
    [[nodiscard]] bool hasEnded() const noexcept;
    void send(int signal) const noexcept;
    /// Reaps the process after its end, which frees its PID.
    [[nodiscard]] ProcessEnd reap() const;

private:
    os::FileDescriptor process;
};

} // namespace zephane
