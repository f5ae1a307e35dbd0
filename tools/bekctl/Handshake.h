#pragma once

#include <string>

namespace bekctl {

/// Returns the certificate of a TLS server on this machine, in DER. Sends no request and no certificate, so
/// the agent logs this at level debug only.
/// Throws std::runtime_error if there is no such server, or if it doesn't answer within three seconds.
std::string certificateShownAt(unsigned short port);

} // namespace bekctl
