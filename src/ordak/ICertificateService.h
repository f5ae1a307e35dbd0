#pragma once

#include <string>

namespace agent::ordak {

/// The service that signs the agents' certificates.
/// Owns:    nothing that outlives a call.
/// Threads: one caller at a time; a call blocks until the answer is there or the attempt is given up.
/// Fails:   a service that can't be reached, can't be trusted or doesn't come to an end is an exception. Any
///          answer at all is none: the caller judges it.
class ICertificateService {
public:
    struct Answer {
        long status = 0; ///< The HTTP status.
        std::string body;
    };

    virtual ~ICertificateService() = default;

    /// Sends a request, a JSON text. `action` is its name, for messages.
    virtual Answer put(const std::string& action, const std::string& json) = 0;
};

} // namespace agent::ordak
