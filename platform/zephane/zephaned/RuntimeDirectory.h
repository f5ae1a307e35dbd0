#pragma once

#include "os/FileDescriptor.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace zephane {

/// The directory of the engines' sockets, closed to other users.
/// Owns:    a lock on the directory, which keeps another server out. The directory itself stays.
/// Threads: any.
/// Fails:   the constructor throws ConfigError; nothing else fails.
class RuntimeDirectory {
public:
    /// Creates the directory if necessary, closes it to others, and removes the sockets of a server that was
    /// killed.
    explicit RuntimeDirectory(const std::string& path);

    /// The path for a new socket, never returned before.
    std::string newSocket();

private:
    const std::string location;
    os::FileDescriptor directory; // locked
    std::atomic<std::uint64_t> last = 0;
};

} // namespace zephane
