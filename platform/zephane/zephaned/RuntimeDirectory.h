#pragma once

#include "os/FileDescriptor.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace zephane {

/// Where the sockets of the back ends are, for nobody else to connect to.
/// Owns:    the directory, as long as the object is there: another server can't have it. The directory stays.
/// Threads: any.
/// Fails:   the constructor throws ConfigError; nothing else fails.
class RuntimeDirectory {
public:
    /// Makes it if it isn't there, closes it to others, and removes the sockets of a server that was killed.
    explicit RuntimeDirectory(const std::string& path);

    /// A path where nothing is.
    std::string newSocket();

private:
    const std::string location;
    os::FileDescriptor directory; // locked
    std::atomic<std::uint64_t> last = 0;
};

} // namespace zephane
