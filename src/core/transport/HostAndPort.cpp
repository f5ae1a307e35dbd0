#include "core/transport/HostAndPort.h"

#include <stdexcept>

namespace agent::core {

HostAndPort splitHostAndPort(const std::string& address) {
    const std::size_t colon = address.find(':');
    if (colon == std::string::npos || address.find(':', colon + 1) != std::string::npos) {
        throw std::invalid_argument("Could not interpret target as address:host");
    }
    return {address.substr(0, colon), static_cast<std::uint16_t>(std::stoi(address.substr(colon + 1)))};
}

} // namespace agent::core
