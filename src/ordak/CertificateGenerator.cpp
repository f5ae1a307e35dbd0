#include "ordak/CertificateGenerator.h"

#include "common/Exceptions.h"
#include "ordak/Certificates.h"
#include "ordak/GCryptError.h"
#include "ordak/GnuTlsError.h"

#include <nlohmann/json.hpp>

#include <array>
#include <gcrypt.h>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

namespace agent::ordak {

namespace {

using Key = std::shared_ptr<gnutls_x509_privkey_int>;
using CertificateRequest = std::shared_ptr<gnutls_x509_crq_int>;
using X509Certificate = std::shared_ptr<gnutls_x509_crt_int>;

constexpr unsigned keyBits = 2048;

/// The device API doesn't read larger certificate files.
constexpr std::size_t maxCertificateBytes = 20000;

void check(int code, const char* message) {
    if (code < 0) {
        throw GnuTlsError(message, code);
    }
}

template <typename Handle>
std::shared_ptr<Handle> make(int (*init)(Handle**), void (*release)(Handle*), const char* message) {
    Handle* made = nullptr;
    check(init(&made), message);
    return {made, release};
}

template <typename Handle>
std::string exportPem(Handle* handle, int (*exporter)(Handle*, gnutls_x509_crt_fmt_t, void*, std::size_t*),
                      const char* message) {
    std::size_t size = 0;
    if (const int code = exporter(handle, GNUTLS_X509_FMT_PEM, nullptr, &size);
        code != GNUTLS_E_SHORT_MEMORY_BUFFER) {
        check(code, message);
    }
    std::string pem(size, '\0');
    check(exporter(handle, GNUTLS_X509_FMT_PEM, pem.data(), &size), message);
    pem.resize(size); // without the NUL, which the first size includes
    return pem;
}

void setSubject(gnutls_x509_crq_t crq, const std::string& hostName) {
    const std::array<std::pair<const char*, std::string>, 6> parts{{
        {"2.5.4.6", "US"},
        {"2.5.4.8", "Ostavia"},
        {"2.5.4.7", "Brellin"},
        {"2.5.4.10", "Tolvu"},
        {"2.5.4.11", "Device-Agent CA"},
        {"2.5.4.3", hostName},
    }};
    for (const auto& [identifier, value] : parts) {
        check(gnutls_x509_crq_set_dn_by_oid(crq, identifier, 0, value.data(),
                                            static_cast<unsigned>(value.size())),
              "gnutls_x509_crq_set_dn_by_oid failed");
    }
}

void sign(gnutls_x509_crq_t crq, gnutls_x509_privkey_t key) {
    check(gnutls_x509_crq_set_key(crq, key), "gnutls_x509_crq_set_key failed");
    check(gnutls_x509_crq_sign2(crq, key, GNUTLS_DIG_SHA256, 0), "gnutls_x509_crq_sign2 failed");
}

/// Signing services recognise a request by its standard PEM marker; GnuTLS writes an older one.
std::string withStandardMarker(std::string pem) {
    const std::string written = "NEW CERTIFICATE REQUEST";
    const std::string standard = "CERTIFICATE REQUEST";
    for (std::size_t at = pem.find(written); at != std::string::npos; at = pem.find(written, at)) {
        pem.replace(at, written.size(), standard);
    }
    return pem;
}

bool hasText(const nlohmann::json& answer, const char* key) {
    return answer.is_object() && answer.contains(key) && answer.at(key).is_string();
}

std::string callName(const std::string& action) {
    return "curl request " + action;
}

/// Parses a certificate from the service. The text is stored unchanged, so all of its readers must accept it,
/// including those that treat it as a C string.
X509Certificate importCertificate(const std::string& action, const std::string& pem) {
    const std::string unusable = callName(action) + " certificate can't be used: ";
    if (pem.size() > maxCertificateBytes) {
        throw exception::bad_response(unusable + "it has " + std::to_string(pem.size()) + " bytes, at most " +
                                      std::to_string(maxCertificateBytes) + " are expected");
    }
    if (pem.find('\0') != std::string::npos) {
        throw exception::bad_response(unusable + "it holds a NUL");
    }
    X509Certificate certificate =
        make(&gnutls_x509_crt_init, &gnutls_x509_crt_deinit, "gnutls_x509_crt_init failed");
    std::vector<unsigned char> bytes(pem.begin(), pem.end());
    const gnutls_datum_t data{bytes.data(), static_cast<unsigned>(bytes.size())};
    if (const int code = gnutls_x509_crt_import(certificate.get(), &data, GNUTLS_X509_FMT_PEM); code < 0) {
        throw exception::bad_response(unusable + "it is no PEM certificate (" + gnutls_strerror(code) + ")");
    }
    return certificate;
}

/// The digest of a public key, by which keys are compared.
template <typename Handle>
std::string keyId(Handle* handle, int (*getter)(Handle*, unsigned, unsigned char*, std::size_t*),
                  const char* message) {
    std::array<unsigned char, 64> digest{};
    std::size_t size = digest.size();
    check(getter(handle, GNUTLS_KEYID_USE_SHA256, digest.data(), &size), message);
    return {digest.data(), digest.data() + size};
}

bool keyMatches(gnutls_x509_crt_t certificate, gnutls_x509_privkey_t key) {
    return keyId(certificate, &gnutls_x509_crt_get_key_id, "gnutls_x509_crt_get_key_id failed") ==
           keyId(key, &gnutls_x509_privkey_get_key_id, "gnutls_x509_privkey_get_key_id failed");
}

/// Whether `issuer` has signed `certificate`. Ignores their validity periods: when the agent starts for the
/// first time, the machine's clock may not be set yet.
bool hasIssued(gnutls_x509_crt_t issuer, gnutls_x509_crt_t certificate) {
    constexpr unsigned refusals = GNUTLS_CERT_SIGNER_NOT_FOUND | GNUTLS_CERT_SIGNER_NOT_CA |
                                  GNUTLS_CERT_SIGNATURE_FAILURE | GNUTLS_CERT_SIGNER_CONSTRAINTS_FAILURE;
    unsigned status = 0;
    check(gnutls_x509_crt_verify(certificate, &issuer, 1, GNUTLS_VERIFY_DISABLE_TIME_CHECKS, &status),
          "gnutls_x509_crt_verify failed");
    return (status & refusals) == 0;
}

/// The authority decides which devices may give the agent orders, so it must be the one that has issued the
/// agent's own certificate.
void checkIssuer(const Certificates& certificates) {
    const std::string action = "retrieveCaCert";
    const X509Certificate own = importCertificate("issueCert", certificates.certificate);
    if (!hasIssued(importCertificate(action, certificates.ca).get(), own.get())) {
        throw exception::bad_response(callName(action) +
                                      " certificate can't be used: it is not the issuer of the agent's");
    }
}

} // namespace

/// Initialises GnuTLS and libgcrypt. The destructor releases GnuTLS.
class CertificateGenerator::Library {
public:
    Library() {
        check(gnutls_global_init(), "error during gnutls_global_init");
        try {
            initGcrypt();
        } catch (...) {
            gnutls_global_deinit();
            throw;
        }
    }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
    ~Library() { gnutls_global_deinit(); }

private:
    /// libgcrypt must be initialised once before threads use it, and stays so until the process ends.
    static void initGcrypt() {
        gcry_check_version(nullptr);
        if (const gcry_error_t code = gcry_control(GCRYCTL_INITIALIZATION_FINISHED, 0); code != 0) {
            throw GCryptError("error during gcry_control", code);
        }
    }
};

CertificateGenerator::CertificateGenerator(info::Logger& logger, std::string hostName, std::string serviceKey,
                                           ICertificateService& service)
    : logger(logger), hostName(std::move(hostName)), serviceKey(std::move(serviceKey)), service(service) {
    if (this->hostName.empty()) {
        throw std::invalid_argument("system hostname not provided");
    }
}

CertificateGenerator::~CertificateGenerator() = default;

void CertificateGenerator::generate() {
    initGnutls();
    initKey();
    initCrq(hostName);
    Certificates certificates;
    certificates.key = keyPem;
    certificates.certificate = issueCert();
    certificates.ca = retrieveCaCert();
    checkIssuer(certificates);
    storeCertificates(certificates, logger);
}

void CertificateGenerator::initGnutls() {
    if (!library) {
        library = std::make_unique<Library>();
    }
}

void CertificateGenerator::initKey() {
    key = make(&gnutls_x509_privkey_init, &gnutls_x509_privkey_deinit, "gnutls_x509_privkey_init failed");
    check(gnutls_x509_privkey_generate(key.get(), GNUTLS_PK_RSA, keyBits, 0),
          "gnutls_x509_privkey_generate failed");
    keyPem = exportPem(key.get(), &gnutls_x509_privkey_export, "gnutls_x509_privkey_export failed");
}

void CertificateGenerator::initCrq(const std::string& subject) {
    const CertificateRequest crq =
        make(&gnutls_x509_crq_init, &gnutls_x509_crq_deinit, "gnutls_x509_crq_init failed");
    setSubject(crq.get(), subject);
    check(gnutls_x509_crq_set_version(crq.get(), 1), "gnutls_x509_crq_set_version failed");
    sign(crq.get(), key.get());
    requestPem =
        withStandardMarker(exportPem(crq.get(), &gnutls_x509_crq_export, "gnutls_x509_crq_export failed"));
}

std::string CertificateGenerator::issueCert() {
    const std::string action = "issueCert";
    std::string pem = request(action, {{"caId", "bek"},
                                       {"caVersion", 1},
                                       {"action", action},
                                       {"key", serviceKey},
                                       {"certificateRequest", requestPem}});
    if (!keyMatches(importCertificate(action, pem).get(), key.get())) {
        throw exception::bad_response(callName(action) + " certificate can't be used: it is for another key");
    }
    return pem;
}

std::string CertificateGenerator::retrieveCaCert() {
    const std::string action = "retrieveCaCert";
    std::string pem = request(action, {{"caId", "bek"}, {"caVersion", 1}, {"action", action}});
    importCertificate(action, pem);
    return pem;
}

std::string CertificateGenerator::request(const std::string& action, const nlohmann::json& json) {
    const ICertificateService::Answer answer = service.put(action, json.dump());
    const bool isSuccess = answer.status >= 200 && answer.status < 300;
    if (!isSuccess) {
        info::LogEntry(logger, info::level::warning)
            << "Certificate service answered " << action << " with HTTP status " << answer.status;
    }
    const nlohmann::json content = nlohmann::json::parse(answer.body, nullptr, false);
    if (content.is_discarded()) {
        throw exception::bad_response(callName(action) + " response incorrectly formatted");
    }
    if (!hasText(content, "status") || !hasText(content, "certificate")) {
        throw exception::bad_response(callName(action) +
                                      " response keys not found, or not formatted correctly");
    }
    if (content.at("status") != "success") {
        throw exception::bad_response(callName(action) + " status: failed");
    }
    if (!isSuccess) { // the body says success, the HTTP status doesn't: such a certificate can't be trusted
        throw exception::bad_response(callName(action) + " answered with HTTP status " +
                                      std::to_string(answer.status));
    }
    return content.at("certificate");
}

} // namespace agent::ordak
