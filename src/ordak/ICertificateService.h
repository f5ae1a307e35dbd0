#pragma once

#include <string>

namespace agent::ordak {

/// The service that signs the agents' certificates.
/// Owns:    nothing that outlives a call.
/// Threads: one thread at a time; a call blocks until the answer has arrived or the request has timed out.
/// Fails:   `put` throws if the service can't be reached, if its certificate can't be trusted, or if the
///          answer doesn't arrive in time or is too large. The caller checks the HTTP status.
class ICertificateService {
public:
    struct Answer {
        long status = 0; ///< The HTTP status.
        std::string body;
    };

    virtual ~ICertificateService() = default;

    /// Sends `json`, a JSON text, as a request. `action` is the request's name, for messages.
    virtual Answer put(const std::string& action, const std::string& json) = 0;
};

} // namespace agent::ordak
