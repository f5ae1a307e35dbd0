#pragma once

#include "os/FileDescriptor.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace agent::test {

/// A test's own syslog daemon. It listens at /dev/log, which is private in the tests' mount namespace.
/// Owns:    the socket and the path /dev/log.
/// Threads: one.
/// Fails:   the constructor throws std::runtime_error if it can't bind the socket.
class SystemLog {
public:
    SystemLog() : socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, path);
        ::unlink(path);
        if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            throw std::runtime_error("no system log for the test");
        }
    }
    SystemLog(const SystemLog&) = delete;
    SystemLog& operator=(const SystemLog&) = delete;
    ~SystemLog() { ::unlink(path); }

    /// The next message as it came in, "<priority>date ident[pid]: text"; empty if there is none.
    std::string next() {
        std::array<char, 8192> buffer{};
        const ssize_t length = ::recv(socket.get(), buffer.data(), buffer.size(), 0);
        return length > 0 ? std::string(buffer.data(), static_cast<std::size_t>(length)) : "";
    }

private:
    static constexpr const char* path = "/dev/log";
    os::FileDescriptor socket;
};

} // namespace agent::test
