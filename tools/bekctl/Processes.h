#pragma once

#include <ctime>
#include <optional>
#include <string>
#include <sys/types.h>

namespace bekctl {

/// One process, according to the kernel.
struct Process {
    pid_t pid = 0;
    std::string name;        ///< of its program, at most 15 bytes
    std::time_t begin = 0;   ///< when it was started
    bool isReplaced = false; ///< its program file was deleted: another version was installed
};

/// Returns nothing if there is no such process.
std::optional<Process> findProcess(pid_t pid);

/// The process that listens on a TCP port of this machine; nothing if none does, or if it can't be seen.
std::optional<Process> findListener(unsigned short port);

/// The inode of the socket that listens on a port, from a text in the format of /proc/net/tcp; empty if none
/// does.
std::string findListeningSocket(const std::string& table, unsigned short port);

} // namespace bekctl
