#pragma once

#include "info/log/Logger.h"
#include "ordak/ICertificateService.h"

#include <nlohmann/json_fwd.hpp>

#include <gnutls/x509.h>
#include <memory>
#include <string>

namespace agent::ordak {

/// Makes the agent's TLS identity: a private key, which never leaves the machine, and a request for a
/// certificate, which the certificate service signs.
/// Owns:    the key, and a use of GnuTLS until it goes.
/// Threads: one.
/// Fails:   GnuTlsError, GCryptError; what the service throws; exception::bad_response for an answer that
///          can't be used. Nothing is written unless all parts are there and belong together.
class CertificateGenerator {
public:
    /// `hostName` is the name that the certificate is issued to; std::invalid_argument if it is empty.
    /// `serviceKey` shows the service that an agent is asking.
    CertificateGenerator(info::Logger& logger, std::string hostName, std::string serviceKey,
                         ICertificateService& service);
    CertificateGenerator(const CertificateGenerator&) = delete;
    CertificateGenerator& operator=(const CertificateGenerator&) = delete;
    ~CertificateGenerator();

    /// Makes a new identity and stores it; see storeCertificates.
    void generate();

private:
    class Library;

    void initGnutls();
    void initKey();
    void initCrq(const std::string& subject);
    std::string issueCert();
    std::string retrieveCaCert();
    /// Returns the "certificate" of the answer.
    std::string request(const std::string& action, const nlohmann::json& json);

    info::Logger& logger;
    std::string hostName;
    std::string serviceKey;
    ICertificateService& service;
    std::unique_ptr<Library> library; // before the key, so that the key goes first
    std::shared_ptr<gnutls_x509_privkey_int> key;
    std::string keyPem;
    std::string requestPem;
};

} // namespace agent::ordak
