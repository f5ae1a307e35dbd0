#include "ordak/UnidentifiedConnections.h"

#include <algorithm>
#include <sys/socket.h>

namespace agent::ordak {

UnidentifiedConnections::UnidentifiedConnections(std::size_t maxCount, Clock::duration maxAge)
    : maxCount(maxCount), maxAge(maxAge) {
    connections.reserve(maxCount);
}

void UnidentifiedConnections::add(int socket) noexcept {
    const os::Lock lock(mutex);
    const Clock::time_point now = Clock::now();
    while (!connections.empty() &&
           (connections.size() >= maxCount || now - connections.front().since > maxAge)) {
        ::shutdown(connections.front().socket,
                   SHUT_RDWR); // the connection's thread sees the end, and the library closes the socket
        connections.erase(connections.begin());
    }
    connections.push_back({socket, now});
}

bool UnidentifiedConnections::remove(int socket) noexcept {
    const os::Lock lock(mutex);
    const auto found = std::ranges::find(connections, socket, &Connection::socket);
    if (found == connections.end()) {
        return false;
    }
    connections.erase(found);
    return true;
}

} // namespace agent::ordak
