#pragma once

#include <cstdint>
#include <string>

namespace agent::core {

struct HostAndPort {
    std::string host;
    std::uint16_t port = 0;
};

/// Splits "host:port". A port of more than 16 bits loses its upper bits. Throws std::invalid_argument for
/// another form, or if the port doesn't begin with a number, and std::out_of_range if the port doesn't fit in
/// an int.
HostAndPort splitHostAndPort(const std::string& address);

} // namespace agent::core
