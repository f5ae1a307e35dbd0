#include "CertificateFile.h"

#include "SmallFile.h"
#include "common/PosixError.h"
#include "tools/common/Text.h"

#include <array>
#include <cerrno>
#include <cstddef>
#include <optional>
#include <stdexcept>

namespace bekctl {

using tools::plain;

namespace {

constexpr std::size_t largestFile = 20'000; // the agent's own limit, too
constexpr long secondsPerDay = 86'400;

using NameGetter = int (*)(gnutls_x509_crt_t, gnutls_datum_t*, unsigned);

gnutls_datum_t datumOf(std::string& text) {
    gnutls_datum_t datum{};
    datum.data = static_cast<unsigned char*>(static_cast<void*>(text.data()));
    datum.size = static_cast<unsigned>(text.size());
    return datum;
}

std::string readPem(const std::string& path) {
    std::optional<std::string> text = readFile(path, largestFile);
    if (!text) {
        throw std::runtime_error(path + " can't be read: " + agent::PosixError::describe(errno));
    }
    return std::move(*text);
}

[[noreturn]] void fail(const std::string& path, int code) {
    throw std::runtime_error(path + " can't be used: " + gnutls_strerror(code));
}

std::string nameOf(gnutls_x509_crt_t certificate, NameGetter getter) {
    gnutls_datum_t name{};
    if (getter(certificate, &name, 0) < 0) {
        return "";
    }
    const std::string text(static_cast<const char*>(static_cast<const void*>(name.data)), name.size);
    gnutls_free(name.data);
    return plain(text);
}

struct ReleaseKey {
    void operator()(gnutls_x509_privkey_t owned) const noexcept { gnutls_x509_privkey_deinit(owned); }
};
using PrivateKey = std::unique_ptr<std::remove_pointer_t<gnutls_x509_privkey_t>, ReleaseKey>;

PrivateKey readKey(const std::string& path) {
    std::string pem = readPem(path);
    gnutls_x509_privkey_t made = nullptr;
    if (const int code = gnutls_x509_privkey_init(&made); code < 0) {
        fail(path, code);
    }
    PrivateKey key(made);
    const gnutls_datum_t datum = datumOf(pem);
    const int code = gnutls_x509_privkey_import(key.get(), &datum, GNUTLS_X509_FMT_PEM);
    gnutls_memset(pem.data(), 0, pem.size());
    if (code < 0) {
        fail(path, code);
    }
    return key;
}

using KeyId = std::array<unsigned char, 64>;

} // namespace

CertificateFile::CertificateFile(const std::string& path) {
    std::string pem = readPem(path);
    gnutls_x509_crt_t made = nullptr;
    if (const int code = gnutls_x509_crt_init(&made); code < 0) {
        fail(path, code);
    }
    handle.reset(made);
    const gnutls_datum_t datum = datumOf(pem);
    if (const int code = gnutls_x509_crt_import(made, &datum, GNUTLS_X509_FMT_PEM); code < 0) {
        fail(path, code);
    }
    subject = nameOf(made, gnutls_x509_crt_get_dn3);
    issuer = nameOf(made, gnutls_x509_crt_get_issuer_dn3);
    begin = gnutls_x509_crt_get_activation_time(made);
    end = gnutls_x509_crt_get_expiration_time(made);
}

long CertificateFile::daysLeft(std::time_t now) const {
    const long seconds = end - now;
    return seconds < 0 ? -((-seconds + secondsPerDay - 1) / secondsPerDay) : seconds / secondsPerDay;
}

bool CertificateFile::belongsTo(const std::string& keyPath) const {
    const PrivateKey key = readKey(keyPath);
    KeyId own{};
    KeyId other{};
    std::size_t ownSize = own.size();
    std::size_t otherSize = other.size();
    return gnutls_x509_crt_get_key_id(handle.get(), GNUTLS_KEYID_USE_SHA256, own.data(), &ownSize) == 0 &&
           gnutls_x509_privkey_get_key_id(key.get(), GNUTLS_KEYID_USE_SHA256, other.data(), &otherSize) ==
               0 &&
           ownSize == otherSize && own == other;
}

bool CertificateFile::isSignedBy(const CertificateFile& authority) const {
    gnutls_x509_crt_t authorityHandle = authority.handle.get();
    unsigned status = 0;
    constexpr unsigned flags = GNUTLS_VERIFY_DISABLE_TIME_CHECKS | GNUTLS_VERIFY_DISABLE_TRUSTED_TIME_CHECKS;
    return gnutls_x509_crt_verify(handle.get(), &authorityHandle, 1, flags, &status) >= 0 &&
           (status & GNUTLS_CERT_INVALID) == 0;
}

std::string CertificateFile::bytes() const {
    gnutls_datum_t der{};
    if (gnutls_x509_crt_export2(handle.get(), GNUTLS_X509_FMT_DER, &der) < 0) {
        return "";
    }
    std::string found(static_cast<const char*>(static_cast<const void*>(der.data)), der.size);
    gnutls_free(der.data);
    return found;
}

} // namespace bekctl
