#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <sys/types.h>

namespace agent::ordak {

/// A TCP socket that listens on a port of all IPv4 addresses of the machine, for a library to take over. The
/// agent creates it itself, because libraries differ in what they report and close if the port is in use.
/// Owns:    the socket until it is handed over.
/// Threads: one thread at a time.
/// Fails:   if the constructor fails, the object has no socket, and `errno` has the reason.
class ListeningSocket {
public:
    explicit ListeningSocket(std::uint16_t port);

    [[nodiscard]] int get() const noexcept { return socket.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(socket); }

    /// The library owns the socket from now on.
    void handOver() noexcept { (void)socket.release(); }
    /// Call this if the library has failed. Closes the socket unless the library has closed it: then another
    /// file may have the descriptor's number by now, and stays open. Preserves `errno`.
    void closeIfStillOpen() noexcept;

private:
    os::FileDescriptor socket;
    ino_t identity = 0; // the socket's inode number, which no other socket of the machine has
};

} // namespace agent::ordak
