#pragma once

#include <optional>
#include <string>

namespace bekctl {

struct Target {
    std::string host;
    unsigned short port = 0;
};

/// "host", "host:port", "[address]" or "[address]:port"; nothing for any other text. The port is iSCSI's
/// unless given.
std::optional<Target> parseTarget(const std::string& text);

} // namespace bekctl
