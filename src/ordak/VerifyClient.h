#pragma once

#include "info/log/Logger.h"
#include "ordak/Certificate.h"

namespace agent::ordak {

/// Checks whether the peer of a TLS session may use the device API. Its certificate must name the same issuer
/// as the agent's own, have a device's number as Common Name and the device type in an extension, and be
/// signed by the authority in "certs/ca.crt" below the base directory. Returns 0 if it may; otherwise logs
/// the reason and returns 1.
int verifyClient(info::Logger& logger, const Certificate& local, const Certificate& peer);

/// Whether one of the first hundred extensions contains the device type.
bool hasDeviceType(const Certificate& certificate);

} // namespace agent::ordak
