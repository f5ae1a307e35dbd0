#include "zephane/socket/BasicSocket.h"

#include "zephane/socket/Transport.h"

#include <stdexcept>
#include <utility>

namespace zephane {

BasicSocket::BasicSocket(std::unique_ptr<Transport> transport) : owned(std::move(transport)) {
    if (!owned) {
        throw std::invalid_argument("a socket needs a transport");
    }
}

BasicSocket::~BasicSocket() = default;

} // namespace zephane
