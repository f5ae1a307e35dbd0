#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>

namespace bekctl {

/// What the kernel tells of one process.
struct Process {
    pid_t pid = 0;
    std::string name;        ///< of its program, at most 15 bytes
    std::time_t begin = 0;   ///< when it was started
    bool isReplaced = false; ///< its program isn't in its place any more: another version was installed
};

/// Nothing if there is none of this number.
std::optional<Process> findProcess(pid_t pid);

/// The process that listens at a TCP port of this machine; nothing if none does, or none that can be seen.
std::optional<Process> findListener(unsigned short port);

/// The inode of the socket that listens at a port, in a text like that of /proc/net/tcp; empty if none does.
std::string findListeningSocket(const std::string& table, unsigned short port);

} // namespace bekctl
