#include "TcpConnection.h"

#include "common/PosixError.h"

#include <cerrno>
#include <memory>
#include <netdb.h>
#include <poll.h>
#include <stdexcept>
#include <sys/socket.h>

namespace bekctl {

namespace {

struct FreeAddresses {
    void operator()(addrinfo* addresses) const noexcept { ::freeaddrinfo(addresses); }
};
using Addresses = std::unique_ptr<addrinfo, FreeAddresses>;

Addresses resolve(const std::string& host, unsigned short port) {
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int code = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &wanted, &found);
    if (code != 0) {
        throw std::runtime_error(::gai_strerror(code));
    }
    return Addresses(found);
}

/// Returns 0, or a value of `errno`.
int waitForConnection(int socket, std::chrono::milliseconds timeout) {
    pollfd waiting{socket, POLLOUT, 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(timeout.count()));
    if (ready <= 0) {
        return ready == 0 ? ETIMEDOUT : errno;
    }
    int error = 0;
    socklen_t size = sizeof error;
    return ::getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 ? error : errno;
}

} // namespace

os::FileDescriptor connectTo(const std::string& host, unsigned short port,
                             std::chrono::milliseconds timeout) {
    const Addresses addresses = resolve(host, port);
    int error = EHOSTUNREACH;
    for (const addrinfo* address = addresses.get(); address != nullptr; address = address->ai_next) {
        os::FileDescriptor socket(
            ::socket(address->ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, address->ai_protocol));
        if (!socket) {
            error = errno;
            continue;
        }
        error = ::connect(socket.get(), address->ai_addr, address->ai_addrlen) == 0 ? 0 : errno;
        if (error == EINPROGRESS) {
            error = waitForConnection(socket.get(), timeout);
        }
        if (error == 0) {
            return socket;
        }
    }
    throw std::runtime_error(agent::PosixError::describe(error));
}

} // namespace bekctl
