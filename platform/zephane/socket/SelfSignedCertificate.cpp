#include "zephane/socket/SelfSignedCertificate.h"

#include <array>
#include <memory>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <stdexcept>

namespace zephane {

namespace {

struct Free {
    void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
    void operator()(X509* certificate) const noexcept { X509_free(certificate); }
};

void require(bool worked) {
    if (!worked) {
        throw std::runtime_error("OpenSSL can't make a certificate");
    }
}

void name(X509& certificate) {
    constexpr std::array<unsigned char, 8> text{'z', 'e', 'p', 'h', 'a', 'n', 'e', 'd'};
    X509_NAME* const subject = X509_get_subject_name(&certificate);
    require(X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_ASC, text.data(), text.size(), -1, 0) == 1);
    require(X509_set_issuer_name(&certificate, subject) == 1);
}

void limitTime(X509& certificate) {
    // No peer checks the validity period; it only must be well formed.
    constexpr long year = 365L * 24 * 60 * 60;
    require(X509_gmtime_adj(X509_getm_notBefore(&certificate), 0) != nullptr);
    require(X509_gmtime_adj(X509_getm_notAfter(&certificate), year) != nullptr);
}

} // namespace

void useSelfSignedCertificate(SSL_CTX& context) {
    const std::unique_ptr<EVP_PKEY, Free> key(EVP_EC_gen("P-256"));
    const std::unique_ptr<X509, Free> certificate(X509_new());
    require(key != nullptr && certificate != nullptr);
    require(X509_set_version(certificate.get(), X509_VERSION_3) == 1);
    require(ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1) == 1);
    limitTime(*certificate);
    name(*certificate);
    require(X509_set_pubkey(certificate.get(), key.get()) == 1);
    require(X509_sign(certificate.get(), key.get(), EVP_sha256()) > 0);
    require(SSL_CTX_use_certificate(&context, certificate.get()) == 1);
    require(SSL_CTX_use_PrivateKey(&context, key.get()) == 1);
}

} // namespace zephane
