#pragma once

#include "os/FileDescriptor.h"

#include <string>
#include <sys/types.h>
#include <vector>

namespace zephane {

/// How a process has ended.
struct ProcessEnd {
    int signal = 0; ///< that has ended it, 0 if none
    int status = 0; ///< that it has exited with, if no signal has ended it

    [[nodiscard]] std::string inWords() const;
};

/// A program that ends with the thread that has started it, whatever ends that.
/// Owns:    the process and a descriptor of it, which never becomes that of another process. An object that
///          goes before the process has ended kills it, and doesn't wait for that.
/// Threads: one at a time; the one that makes it has to live as long as the process is to.
/// Fails:   the constructor throws std::system_error; nothing else fails.
class ChildProcess {
public:
    /// `program` is a path. It has a few variables of the environment, no input, and what it prints goes to
    /// `output`; no other descriptor is open in it.
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                 const os::FileDescriptor& output);
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess();

    /// Can be read from when the process has ended.
    [[nodiscard]] int descriptor() const noexcept { return process.get(); }
    /// Asks the kernel, so it is never late. In any thread.
    [[nodiscard]] bool hasEnded() const noexcept;
    void send(int signal) const noexcept;
    /// Once it has ended; its number is given back.
    [[nodiscard]] ProcessEnd reap() const;

private:
    os::FileDescriptor process;
};

} // namespace zephane
