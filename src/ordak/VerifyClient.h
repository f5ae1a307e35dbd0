#pragma once

#include "info/log/Logger.h"
#include "ordak/Certificate.h"

namespace agent::ordak {

/// Whether the other side of a TLS session may talk to the agent: it must be a device, by its name and by an
/// extension of its certificate, and vouched for by the authority in "certs/ca.crt" below the base directory.
/// Returns 0 if it may; otherwise 1, and the log says why.
int verifyClient(info::Logger& logger, const Certificate& local, const Certificate& peer);

/// Whether one of the first hundred extensions says that this is the certificate of a device.
bool hasDeviceType(const Certificate& certificate);

} // namespace agent::ordak
