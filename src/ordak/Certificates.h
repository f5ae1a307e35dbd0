#pragma once

#include "common/Path.h"
#include "info/log/Logger.h"

#include <functional>
#include <string>

namespace agent::ordak {

/// The agent's TLS identity, each part in PEM form.
struct Certificates {
    std::string key;         ///< "server.key": the private key.
    std::string certificate; ///< "server.pem": the agent's own certificate, for that key.
    std::string ca;          ///< "ca.crt": the authority that has issued it, and those of the devices.
};

/// "certs" below the base directory.
Path certificatesDirectory();

/// Reads the three files. A key that others than its owner can read is closed to them, with a warning. If one
/// is missing or empty, `generate` has to make them all, and they are read again. Whether key and certificate
/// belong together is not asked here: the TLS library refuses a pair that doesn't, so that the server won't
/// start with it. Throws std::runtime_error, which names the missing files, after logging the same text.
void loadOrCreate(Certificates& certificates, info::Logger& logger, const std::function<void()>& generate);

/// Replaces the three files, creating the directory if needed. Whatever interrupts this, no key stands beside
/// a certificate of another one in a set that looks complete: "ca.crt" is taken away first and comes back
/// last, and without it the next start makes everything anew. Throws std::runtime_error with the name of the
/// file that can't be written; the system's reason is logged.
void storeCertificates(const Certificates& certificates, info::Logger& logger);

} // namespace agent::ordak
