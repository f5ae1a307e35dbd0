#pragma once

#include "ordak/ICertificateService.h"

#include <chrono>
#include <cstddef>
#include <string>

namespace agent::ordak {

/// The limits of a request to the certificate service. A service that is slow or sends endless data must not
/// prevent the agent from reporting the error.
struct CertificateServiceLimits {
    std::chrono::milliseconds connect = std::chrono::seconds(30); ///< Until the connection is established.
    std::chrono::milliseconds total = std::chrono::seconds(60);   ///< Until the answer is complete.
    std::size_t answerBytes = std::size_t{1024} * 1024;
};

/// The certificate service, over HTTPS.
///
/// The answer decides who may give the agent orders, so the peer's certificate and host name are always
/// checked against the system's trusted authorities, TLS is 1.2 or later, no redirect is followed and no
/// proxy of the environment is used.
///
/// Owns:    nothing between calls.
/// Threads: one thread at a time, and only while no other thread uses libcurl, because initialising libcurl
///          isn't thread-safe.
/// Fails:   `put` throws CURLError if the transfer fails, and bad_response if the answer exceeds the limit.
class CertificateService : public ICertificateService {
public:
    /// `host` may include a port: "host:port".
    explicit CertificateService(const std::string& host, CertificateServiceLimits limits = {});

    Answer put(const std::string& action, const std::string& json) override;

private:
    std::string url;
    CertificateServiceLimits limits;
};

} // namespace agent::ordak
