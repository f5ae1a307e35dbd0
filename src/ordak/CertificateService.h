#pragma once

#include "ordak/ICertificateService.h"

#include <chrono>
#include <cstddef>
#include <string>

namespace agent::ordak {

/// How much of a certificate service the agent puts up with. A service that is slow or sends without end must
/// not keep the agent from telling what is wrong.
struct CertificateServiceLimits {
    std::chrono::milliseconds connect = std::chrono::seconds(30); ///< Until the connection stands.
    std::chrono::milliseconds total = std::chrono::seconds(60);   ///< Until the answer is there.
    std::size_t answerBytes = std::size_t{1024} * 1024;
};

/// The certificate service, over HTTPS.
///
/// The answer decides who may give the agent orders, so the peer's certificate and host name are always
/// checked against the system's trusted authorities, TLS is 1.2 or later, no redirect is followed and no
/// proxy of the environment is used.
///
/// Owns:    nothing between calls.
/// Threads: as the interface; not beside other threads that use libcurl, whose set-up isn't safe there.
/// Fails:   CURLError for a transfer that doesn't succeed, bad_response for an answer above the limit.
class CertificateService : public ICertificateService {
public:
    /// `host` may carry a port: "host:port".
    explicit CertificateService(const std::string& host, CertificateServiceLimits limits = {});

    Answer put(const std::string& action, const std::string& json) override;

private:
    std::string url;
    CertificateServiceLimits limits;
};

} // namespace agent::ordak
