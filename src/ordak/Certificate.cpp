#include "ordak/Certificate.h"

#include "os/FileDescriptor.h"
#include "os/Transfer.h"

#include <fcntl.h>
#include <gnutls/abstract.h>
#include <span>
#include <stdexcept>

namespace agent::ordak {
namespace {

constexpr std::size_t maxFileBytes = 20'000;

/// Far longer than any name in a certificate that a TLS handshake can transmit in practice.
constexpr std::size_t maxDistinguishedNameBytes = 65'536;

using NameGetter = int (*)(gnutls_x509_crt_t, char*, std::size_t*);

DistinguishedName readName(gnutls_x509_crt_t crt, NameGetter getter) {
    std::size_t size = 0;
    getter(crt, nullptr, &size);
    if (size == 0 || size > maxDistinguishedNameBytes) {
        return {};
    }
    std::string text(size, '\0');
    if (getter(crt, text.data(), &size) < 0) {
        return {};
    }
    text.resize(size);
    if (text.ends_with('\0')) {
        text.pop_back();
    }
    return parseDistinguishedName(text);
}

gnutls_datum_t datumOf(std::string& bytes) {
    gnutls_datum_t datum{};
    datum.data = static_cast<unsigned char*>(static_cast<void*>(bytes.data()));
    datum.size = static_cast<unsigned>(bytes.size());
    return datum;
}

/// Returns at most the first `bytes` bytes of a file: those before the first read error.
std::string readAtMost(int descriptor, std::size_t bytes) {
    std::string content(bytes, '\0');
    content.resize(os::readUpTo(descriptor, std::as_writable_bytes(std::span(content))).bytes);
    return content;
}

std::string readCertificateFile(const std::string& path) {
    // O_NONBLOCK, because opening a pipe without a writer, which somebody may have put there, would block.
    const os::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!file) {
        throw std::invalid_argument("Failed to import file as certificate (failed to open file)");
    }
    std::string content = readAtMost(file.get(), maxFileBytes + 1);
    if (content.size() > maxFileBytes) {
        throw std::invalid_argument("Failed to import file as certificate (file too large)");
    }
    return content;
}

struct ReleaseKey {
    void operator()(gnutls_pubkey_t key) const noexcept { gnutls_pubkey_deinit(key); }
};
using PublicKey = std::unique_ptr<std::remove_pointer_t<gnutls_pubkey_t>, ReleaseKey>;

PublicKey publicKeyOf(gnutls_x509_crt_t crt) {
    gnutls_pubkey_t made = nullptr;
    if (gnutls_pubkey_init(&made) < 0) {
        throw std::runtime_error("Failed to initialize pubkey to verify pair ticket signature");
    }
    PublicKey key(made);
    if (gnutls_pubkey_import_x509(key.get(), crt, 0) < 0) {
        throw std::runtime_error("Failed to load local certificate for pair ticket signature verification");
    }
    return key;
}

} // namespace

Certificate::Certificate(Kind kind, gnutls_session_t session) : ownKind(kind) {
    if (session == nullptr) {
        throw std::invalid_argument("Bad session");
    }
    crt = makeHandle();
    switch (kind) {
    case Kind::local:
        importLocal(session);
        break;
    case Kind::peer:
        importPeer(session);
        break;
    default:
        throw std::invalid_argument("Internal error occurred loading certificate");
    }
    readFields();
}

Certificate::Certificate(const std::string& path) : ownKind(Kind::local) {
    std::string content = readCertificateFile(path);
    crt = makeHandle();
    const gnutls_datum_t pem = datumOf(content);
    if (gnutls_x509_crt_import(crt.get(), &pem, GNUTLS_X509_FMT_PEM) < 0) {
        throw std::runtime_error("Failed to import file as certificate (import error)");
    }
    readFields();
}

Certificate::Handle Certificate::makeHandle() {
    gnutls_x509_crt_t made = nullptr;
    if (gnutls_x509_crt_init(&made) < 0) {
        throw std::runtime_error("Failed to initialize certificate");
    }
    return Handle(made);
}

void Certificate::importLocal(gnutls_session_t session) {
    const gnutls_datum_t* const ours = gnutls_certificate_get_ours(session);
    if (ours == nullptr) {
        throw std::runtime_error("Failed to load local certificate");
    }
    if (gnutls_x509_crt_import(crt.get(), ours, GNUTLS_X509_FMT_DER) < 0) {
        throw std::runtime_error("Failed to import local certificate");
    }
}

void Certificate::importPeer(gnutls_session_t session) {
    // The status of the certificate chain is ignored here: the caller checks the chain by its own rules.
    unsigned status = 0;
    if (gnutls_certificate_verify_peers2(session, &status) < 0) {
        throw std::runtime_error("Failed to verify peer certificate");
    }
    unsigned count = 0;
    const gnutls_datum_t* const peers = gnutls_certificate_get_peers(session, &count);
    if (peers == nullptr || count == 0) {
        throw std::runtime_error("Failed to load peer certificate");
    }
    if (gnutls_x509_crt_import(crt.get(), peers, GNUTLS_X509_FMT_DER) < 0) {
        throw std::runtime_error("Failed to import peer certificate");
    }
}

void Certificate::readFields() {
    issuerName = readName(crt.get(), gnutls_x509_crt_get_issuer_dn);
    subjectName = readName(crt.get(), gnutls_x509_crt_get_dn);
    activationTime = gnutls_x509_crt_get_activation_time(crt.get());
    expirationTime = gnutls_x509_crt_get_expiration_time(crt.get());
}

int Certificate::verifyData(gnutls_sign_algorithm_t algorithm, const std::string& data,
                            const std::string& signature) const {
    if (!crt) {
        throw std::runtime_error(
            "Internal error occurred verifying certificate data: uninitialized certificate");
    }
    const std::time_t now = std::time(nullptr);
    if (now > expirationTime) {
        return GNUTLS_E_EXPIRED;
    }
    if (now < activationTime) {
        throw std::runtime_error("Error occurred verifying certificate data: Local certificate is not yet "
                                 "activated. Verify that system time is accurate.");
    }
    const PublicKey key = publicKeyOf(crt.get());
    std::string dataBytes = data;
    std::string signatureBytes = signature;
    const gnutls_datum_t signedData = datumOf(dataBytes);
    const gnutls_datum_t given = datumOf(signatureBytes);
    return gnutls_pubkey_verify_data2(key.get(), algorithm, GNUTLS_VERIFY_DISABLE_CA_SIGN, &signedData,
                                      &given);
}

} // namespace agent::ordak
