#pragma once

#include "os/FileDescriptor.h"

#include <cstdint>
#include <sys/types.h>

namespace agent::ordak {

/// A TCP socket that listens on a port of all IPv4 addresses of the machine, for a library to take over. We
/// make it ourselves, because libraries differ in what they tell and close when a port is in use.
/// Owns:    the socket until it is handed over.
/// Threads: one at a time.
/// Fails:   an object without a socket, `errno` says why.
class ListeningSocket {
public:
    explicit ListeningSocket(std::uint16_t port);

    [[nodiscard]] int get() const noexcept { return socket.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(socket); }

    /// The library owns the socket from now on.
    void handOver() noexcept { (void)socket.release(); }
    /// For a library that has failed: not each of them has closed the socket by then. What has its number now
    /// may be somebody else's, and is left alone. Keeps `errno`.
    void takeBack() noexcept;

private:
    os::FileDescriptor socket;
    ino_t identity = 0; // of the socket; no other one of the machine has it
};

} // namespace agent::ordak
