#include "ordak/Strangers.h"

#include <algorithm>
#include <sys/socket.h>

namespace agent::ordak {

void Strangers::enter(int socket) {
    const std::lock_guard lock(mutex);
    sockets.push_back(socket);
    if (sockets.size() > most) {
        ::shutdown(sockets.front(), SHUT_RDWR); // its thread sees the end, and has the library close it
        sockets.pop_front();
    }
}

bool Strangers::leave(int socket) {
    const std::lock_guard lock(mutex);
    const auto found = std::find(sockets.begin(), sockets.end(), socket);
    if (found == sockets.end()) {
        return false;
    }
    sockets.erase(found);
    return true;
}

} // namespace agent::ordak
