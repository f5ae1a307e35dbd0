#pragma once

#include "FileAccess.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd {

/// Identifies a process uniquely since the machine was started: a PID alone may be reused.
struct ProcessName {
    pid_t number = 0;
    std::uint64_t started = 0; ///< in ticks since the start of the machine

    bool operator==(const ProcessName&) const = default;
};

/// The system call that a thread is in, and its first argument; -1 if it is in none.
struct SystemCall {
    long number = -1;
    std::uint64_t argument = 0;

    bool operator==(const SystemCall&) const = default;
};

/// A process, as /proc shows it.
/// Owns:    a descriptor of its directory in /proc, which never refers to another process, even if the PID is
///          reused.
/// Threads: any.
/// Fails:   std::system_error with ENOENT or ESRCH when the process is gone.
class Process {
public:
    explicit Process(pid_t number);

    [[nodiscard]] pid_t number() const noexcept { return id; }
    [[nodiscard]] ProcessName name() const;
    [[nodiscard]] pid_t parent() const;
    /// The state letter that ps(1) shows, 0 when the process is gone. Only makes system calls.
    [[nodiscard]] char state() const noexcept;
    /// Returns false when the signal can't be sent. Only makes system calls.
    [[nodiscard]] bool send(int signal) const noexcept;

    /// The process's file descriptors that refer to a device; `type` is S_IFBLK or S_IFCHR. Makes no request
    /// to any file system.
    [[nodiscard]] std::vector<std::uint64_t> descriptorsOf(mode_t type, dev_t device) const;
    [[nodiscard]] std::vector<pid_t> threads() const;
    /// The thread's state letter; 0 when the thread is gone.
    [[nodiscard]] char stateOf(pid_t thread) const noexcept;
    [[nodiscard]] SystemCall callOf(pid_t thread) const;

    [[nodiscard]] int descriptor() const noexcept { return folder.get(); }

private:
    [[nodiscard]] std::string path(const std::string& name) const;
    [[nodiscard]] std::vector<std::string> stat() const;

    pid_t id;
    os::FileDescriptor folder;
};

/// The PIDs of all processes that /proc shows.
std::vector<pid_t> processes();
/// The PID of this process in /proc. It differs from getpid() if /proc belongs to another PID namespace.
pid_t thisProcess();

/// The words of /proc/PID/stat from the state on. The process name before it may contain any character.
std::vector<std::string> parseStat(const std::string& line);
/// Parses a line of /proc/PID/syscall.
SystemCall parseSystemCall(const std::string& line);

} // namespace tolvubd
