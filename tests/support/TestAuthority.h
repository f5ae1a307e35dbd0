#pragma once

#include <array>
#include <ctime>
#include <gnutls/x509.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace agent::test {

using X509Key = std::shared_ptr<gnutls_x509_privkey_int>;
using X509Request = std::shared_ptr<gnutls_x509_crq_int>;
using X509Certificate = std::shared_ptr<gnutls_x509_crt_int>;

inline void requireGnuTls(int code) {
    if (code < 0) {
        throw std::runtime_error(gnutls_strerror(code));
    }
}

template <typename Handle>
std::shared_ptr<Handle> makeGnuTls(int (*init)(Handle**), void (*release)(Handle*)) {
    Handle* made = nullptr;
    requireGnuTls(init(&made));
    return {made, release};
}

template <typename Handle>
void importPem(Handle* handle, int (*importer)(Handle*, const gnutls_datum_t*, gnutls_x509_crt_fmt_t),
               const std::string& pem) {
    std::vector<unsigned char> bytes(pem.begin(), pem.end());
    const gnutls_datum_t data{bytes.data(), static_cast<unsigned>(bytes.size())};
    requireGnuTls(importer(handle, &data, GNUTLS_X509_FMT_PEM));
}

inline X509Key importKey(const std::string& pem) {
    X509Key key = makeGnuTls(&gnutls_x509_privkey_init, &gnutls_x509_privkey_deinit);
    importPem(key.get(), &gnutls_x509_privkey_import, pem);
    return key;
}

inline X509Request importRequest(const std::string& pem) {
    X509Request request = makeGnuTls(&gnutls_x509_crq_init, &gnutls_x509_crq_deinit);
    importPem(request.get(), &gnutls_x509_crq_import, pem);
    return request;
}

inline X509Certificate importCertificate(const std::string& pem) {
    X509Certificate certificate = makeGnuTls(&gnutls_x509_crt_init, &gnutls_x509_crt_deinit);
    importPem(certificate.get(), &gnutls_x509_crt_import, pem);
    return certificate;
}

/// The ID of a public key: that of a private key, a request or a certificate.
template <typename Handle>
std::string publicKeyOf(Handle* handle, int (*getter)(Handle*, unsigned, unsigned char*, std::size_t*)) {
    std::array<unsigned char, 64> digest{};
    std::size_t size = digest.size();
    requireGnuTls(getter(handle, GNUTLS_KEYID_USE_SHA256, digest.data(), &size));
    return {digest.data(), digest.data() + size};
}

/// A certificate authority in memory. Its key is small, so that it is generated quickly.
/// Owns:    its key and certificate.
/// Threads: one.
/// Fails:   by std::runtime_error with the message of GnuTLS.
class TestAuthority {
public:
    TestAuthority() {
        requireGnuTls(gnutls_x509_privkey_generate(key.get(), GNUTLS_PK_ECDSA,
                                                   GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0));
        describe(authority.get(), 1);
        requireGnuTls(gnutls_x509_crt_set_dn(authority.get(), "CN=Device-Agent CA", nullptr));
        requireGnuTls(gnutls_x509_crt_set_key(authority.get(), key.get()));
        requireGnuTls(gnutls_x509_crt_set_ca_status(authority.get(), 1));
        sign(authority.get());
    }

    [[nodiscard]] std::string pem() const { return exportPem(authority.get()); }

    /// Issues a certificate for the subject and the public key of a request.
    [[nodiscard]] std::string issue(const std::string& requestPem) const {
        const X509Certificate issued = makeGnuTls(&gnutls_x509_crt_init, &gnutls_x509_crt_deinit);
        requireGnuTls(gnutls_x509_crt_set_crq(issued.get(), importRequest(requestPem).get()));
        describe(issued.get(), 2);
        sign(issued.get());
        return exportPem(issued.get());
    }

private:
    static void describe(gnutls_x509_crt_t certificate, char serial) {
        const std::time_t now = std::time(nullptr);
        requireGnuTls(gnutls_x509_crt_set_version(certificate, 3));
        requireGnuTls(gnutls_x509_crt_set_serial(certificate, &serial, 1));
        requireGnuTls(gnutls_x509_crt_set_activation_time(certificate, now - 3600));
        requireGnuTls(gnutls_x509_crt_set_expiration_time(certificate, now + 3600));
    }

    void sign(gnutls_x509_crt_t certificate) const {
        requireGnuTls(gnutls_x509_crt_sign2(certificate, authority.get(), key.get(), GNUTLS_DIG_SHA256, 0));
    }

    static std::string exportPem(gnutls_x509_crt_t certificate) {
        std::string pem(20000, '\0');
        std::size_t size = pem.size();
        requireGnuTls(gnutls_x509_crt_export(certificate, GNUTLS_X509_FMT_PEM, pem.data(), &size));
        pem.resize(size);
        return pem;
    }

    X509Key key = makeGnuTls(&gnutls_x509_privkey_init, &gnutls_x509_privkey_deinit);
    X509Certificate authority = makeGnuTls(&gnutls_x509_crt_init, &gnutls_x509_crt_deinit);
};

} // namespace agent::test
