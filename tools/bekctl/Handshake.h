#pragma once

#include <string>

namespace bekctl {

/// The certificate that a TLS server on this machine shows, its bytes as they go over the network. No request
/// is made and no certificate shown, which the agent's log has no line about above level debug.
/// Throws std::runtime_error if there is no such server, or if it says nothing for three seconds.
std::string certificateShownAt(unsigned short port);

} // namespace bekctl
