#pragma once

#include <cstdint>
#include <string>

namespace agent::core {

struct HostAndPort {
    std::string host;
    std::uint16_t port = 0;
};

/// Takes "host:port" apart. A port beyond 16 bits loses its upper ones. Throws std::invalid_argument for
/// another form and for a port that begins with no number, std::out_of_range for one that fits no int.
HostAndPort splitHostAndPort(const std::string& address);

} // namespace agent::core
