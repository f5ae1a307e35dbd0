#pragma once

#include <optional>
#include <string>

namespace bekctl {

struct Target {
    std::string host;
    unsigned short port = 0;
};

/// Parses "host", "host:port", "[address]" or "[address]:port"; returns nothing for any other text. The
/// default port is that of iSCSI.
std::optional<Target> parseTarget(const std::string& text);

} // namespace bekctl
