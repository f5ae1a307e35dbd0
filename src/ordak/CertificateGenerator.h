#pragma once

#include "info/log/Logger.h"
#include "ordak/ICertificateService.h"

#include <nlohmann/json_fwd.hpp>

#include <gnutls/x509.h>
#include <memory>
#include <string>

namespace agent::ordak {

/// Creates the agent's TLS identity: a private key, which never leaves the machine, and a certificate
/// request, which the certificate service signs.
/// Owns:    the key, and the initialisation of GnuTLS until the object is destroyed.
/// Threads: one thread only.
/// Fails:   `generate` throws GnuTlsError, GCryptError, what the service throws, exception::bad_response for
///          an unusable answer, and what storeCertificates throws. It stores nothing until all parts are
///          there and belong together.
class CertificateGenerator {
public:
    /// `hostName` is the name that the certificate is issued to; throws std::invalid_argument if it is empty.
    /// `serviceKey` identifies the client as an agent to the service.
    CertificateGenerator(info::Logger& logger, std::string hostName, std::string serviceKey,
                         ICertificateService& service);
    CertificateGenerator(const CertificateGenerator&) = delete;
    CertificateGenerator& operator=(const CertificateGenerator&) = delete;
    ~CertificateGenerator();

    /// Creates a new identity and stores it; see storeCertificates.
    void generate();

private:
    class Library;

    void initGnutls();
    void initKey();
    void initCrq(const std::string& subject);
    std::string issueCert();
    std::string retrieveCaCert();
    /// Sends a request and returns the "certificate" from the answer.
    std::string request(const std::string& action, const nlohmann::json& json);

    info::Logger& logger;
    std::string hostName;
    std::string serviceKey;
    ICertificateService& service;
    std::unique_ptr<Library> library; // before the key, so that the key is destroyed first
    std::shared_ptr<gnutls_x509_privkey_int> key;
    std::string keyPem;
    std::string requestPem;
};

} // namespace agent::ordak
