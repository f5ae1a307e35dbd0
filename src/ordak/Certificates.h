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
    std::string ca;          ///< "ca.crt": the authority that issues this certificate and the devices'.
};

/// "certs" below the base directory.
Path certificatesDirectory();

/// Reads the three files. If others than its owner can read the key, restricts its permissions and logs a
/// warning. If a file is missing or empty, calls `generate`, which must create all three, and reads them
/// again. Doesn't check that key and certificate belong together: if they don't, the TLS library refuses
/// them, and the server doesn't start. Throws std::runtime_error, which names the missing files, after
/// logging the same text.
void loadOrCreate(Certificates& certificates, info::Logger& logger, const std::function<void()>& generate);

/// Replaces the three files, and creates the directory if needed. Removes "ca.crt" first and writes it last:
/// if this is interrupted, "ca.crt" is missing, and the next start creates everything anew. So a key is never
/// used with a certificate for another key. Throws std::runtime_error with the name of the file that can't be
/// written, and logs the system's reason.
void storeCertificates(const Certificates& certificates, info::Logger& logger);

} // namespace agent::ordak
