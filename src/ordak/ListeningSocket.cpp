#include "ordak/ListeningSocket.h"

#include <bit>
#include <cerrno>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace agent::ordak {

namespace {

/// The inode number of a socket; 0, which no socket has, if `descriptor` isn't a socket.
ino_t identityOf(int descriptor) {
    struct ::stat status{};
    return ::fstat(descriptor, &status) == 0 && S_ISSOCK(status.st_mode) ? status.st_ino : 0;
}

bool listens(int socket, std::uint16_t port) {
    const int on = 1; // without SO_REUSEADDR the port would be in use for a while after a stop
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    const auto general = std::bit_cast<sockaddr>(address);
    return ::setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0 &&
           ::bind(socket, &general, sizeof general) == 0 && ::listen(socket, SOMAXCONN) == 0;
}

} // namespace

ListeningSocket::ListeningSocket(std::uint16_t port)
    : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    if (socket && !listens(socket.get(), port)) {
        socket.reset();
    }
    identity = socket ? identityOf(socket.get()) : 0;
}

void ListeningSocket::closeIfStillOpen() noexcept {
    const int error = errno;
    if (identityOf(socket.get()) != identity) {
        (void)socket.release();
    }
    socket.reset();
    errno = error;
}

} // namespace agent::ordak
