#pragma once

#include "FileAccess.h"

#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

namespace tolvubd {

/// What tells a process from every other one since the machine was started: its number is given out again.
struct ProcessName {
    pid_t number = 0;
    std::uint64_t started = 0; ///< in ticks since the start of the machine

    bool operator==(const ProcessName&) const = default;
};

/// The system call that a thread is in, and its first argument; -1 where it is in none.
struct SystemCall {
    long number = -1;
    std::uint64_t argument = 0;

    bool operator==(const SystemCall&) const = default;
};

/// A process, as /proc shows it.
/// Owns:    a descriptor of its folder there, which never becomes that of another process.
/// Threads: any.
/// Fails:   std::system_error with ENOENT or ESRCH when the process is gone.
class Process {
public:
    explicit Process(pid_t number);

    [[nodiscard]] pid_t number() const noexcept { return id; }
    [[nodiscard]] ProcessName name() const;
    [[nodiscard]] pid_t parent() const;
    /// The letter that ps(1) shows, 0 when it is gone. Only system calls.
    [[nodiscard]] char state() const noexcept;
    /// False when it can't be sent. Only system calls.
    [[nodiscard]] bool send(int signal) const noexcept;

    /// Its descriptors of a device, which is a block or a character device by `type`. Asks no file system.
    [[nodiscard]] std::vector<std::uint64_t> descriptorsOf(mode_t type, dev_t device) const;
    [[nodiscard]] std::vector<pid_t> threads() const;
    /// 0 when the thread is gone.
    [[nodiscard]] char stateOf(pid_t thread) const noexcept;
    [[nodiscard]] SystemCall callOf(pid_t thread) const;

    [[nodiscard]] int descriptor() const noexcept { return folder.get(); }

private:
    [[nodiscard]] std::string path(const std::string& name) const;
    [[nodiscard]] std::vector<std::string> stat() const;

    pid_t id;
    os::FileDescriptor folder;
};

/// The numbers of all processes that /proc shows.
std::vector<pid_t> processes();
/// The number by which it shows this one, which is another where it is that of other namespaces.
pid_t thisProcess();

/// The words of /proc/PID/stat from the state on. The name before it may hold anything.
std::vector<std::string> parseStat(const std::string& line);
/// A line of /proc/PID/syscall.
SystemCall parseSystemCall(const std::string& line);

} // namespace tolvubd
