#include "ordak/Strangers.h"

#include <algorithm>
#include <sys/socket.h>

namespace agent::ordak {

Strangers::Strangers(std::size_t most) : most(most) {
    sockets.reserve(most);
}

void Strangers::enter(int socket) noexcept {
    const std::lock_guard lock(mutex);
    if (sockets.size() == most) {
        ::shutdown(sockets.front(), SHUT_RDWR); // its thread sees the end, and has the library close it
        sockets.erase(sockets.begin());
    }
    sockets.push_back(socket);
}

bool Strangers::leave(int socket) noexcept {
    const std::lock_guard lock(mutex);
    const auto found = std::find(sockets.begin(), sockets.end(), socket);
    if (found == sockets.end()) {
        return false;
    }
    sockets.erase(found);
    return true;
}

} // namespace agent::ordak
