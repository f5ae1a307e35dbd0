#include "ordak/Strangers.h"

#include <algorithm>
#include <sys/socket.h>

namespace agent::ordak {

Strangers::Strangers(std::size_t most, Clock::duration longest) : most(most), longest(longest) {
    present.reserve(most);
}

void Strangers::enter(int socket) noexcept {
    const os::Lock lock(mutex);
    const Clock::time_point now = Clock::now();
    while (!present.empty() && (present.size() >= most || now - present.front().since > longest)) {
        ::shutdown(present.front().socket,
                   SHUT_RDWR); // the connection's thread sees the end, and the library closes the socket
        present.erase(present.begin());
    }
    present.push_back({socket, now});
}

bool Strangers::leave(int socket) noexcept {
    const os::Lock lock(mutex);
    const auto found = std::ranges::find(present, socket, &Stranger::socket);
    if (found == present.end()) {
        return false;
    }
    present.erase(found);
    return true;
}

} // namespace agent::ordak
