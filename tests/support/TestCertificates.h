#pragma once

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <ctime>
#include <gnutls/abstract.h>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/types.h>
#include <type_traits>
#include <vector>

namespace agent::test {

inline void requireGnuTls(int result) {
    if (result < 0) {
        throw std::runtime_error(std::string("the test's GnuTLS: ") + gnutls_strerror(result));
    }
}

/// A private key for tests: elliptic curve, 256 bits.
/// Owns:    the GnuTLS key.
/// Threads: one.
/// Fails:   by std::runtime_error with the message of GnuTLS.
class TestKey {
public:
    TestKey() {
        requireGnuTls(gnutls_x509_privkey_init(&key));
        requireGnuTls(gnutls_x509_privkey_generate(key, GNUTLS_PK_ECDSA,
                                                   GNUTLS_CURVE_TO_BITS(GNUTLS_ECC_CURVE_SECP256R1), 0));
    }
    TestKey(const TestKey&) = delete;
    TestKey& operator=(const TestKey&) = delete;
    ~TestKey() { gnutls_x509_privkey_deinit(key); }

    [[nodiscard]] gnutls_x509_privkey_t get() const { return key; }

    [[nodiscard]] std::string pem() const {
        gnutls_datum_t text{};
        requireGnuTls(gnutls_x509_privkey_export2(key, GNUTLS_X509_FMT_PEM, &text));
        const std::unique_ptr<unsigned char, decltype(gnutls_free)> owner(text.data, gnutls_free);
        return {reinterpret_cast<const char*>(text.data), text.size};
    }

    /// The key ID as certificates store it.
    [[nodiscard]] std::string id() const {
        std::array<unsigned char, 64> bytes{};
        std::size_t size = bytes.size();
        requireGnuTls(gnutls_x509_privkey_get_key_id(key, 0, bytes.data(), &size));
        return {bytes.begin(), bytes.begin() + size};
    }

    /// Signs data with SHA-256.
    [[nodiscard]] std::string sign(const std::string& data) const {
        gnutls_privkey_t signer = nullptr;
        requireGnuTls(gnutls_privkey_init(&signer));
        const std::unique_ptr<std::remove_pointer_t<gnutls_privkey_t>, decltype(&gnutls_privkey_deinit)>
            owner(signer, gnutls_privkey_deinit);
        requireGnuTls(gnutls_privkey_import_x509(signer, key, 0));
        const gnutls_datum_t input{
            reinterpret_cast<unsigned char*>(const_cast<char*>(data.data())), // NOLINT: read only
            static_cast<unsigned>(data.size())};
        gnutls_datum_t signature{};
        requireGnuTls(gnutls_privkey_sign_data2(signer, GNUTLS_SIGN_ECDSA_SHA256, 0, &input, &signature));
        const std::unique_ptr<unsigned char, decltype(gnutls_free)> bytes(signature.data, gnutls_free);
        return {reinterpret_cast<const char*>(signature.data), signature.size};
    }

private:
    gnutls_x509_privkey_t key = nullptr;
};

/// The contents of a test certificate.
struct CertificateContents {
    struct Extension {
        std::string oid;
        std::string data;
    };

    std::string commonName = "4711"; ///< Any bytes; empty: none.
    std::string organization = {};
    std::string organizationalUnit = {};
    std::time_t activation = std::time(nullptr) - 3600;
    std::time_t expiration = std::time(nullptr) + 3600;
    bool isAuthority = false;
    std::vector<Extension> extensions = {}; ///< In this order, before any others.
};

inline constexpr const char* deviceTypeOid = "2.16.840.1.113730.1.13";

inline std::string deviceTypeData(const std::string& text = "type:device", char tag = 22) {
    return std::string{tag, static_cast<char>(text.size())} + text;
}

/// The contents of a valid appliance certificate.
inline CertificateContents deviceContents(const std::string& commonName = "4711") {
    CertificateContents contents;
    contents.commonName = commonName;
    contents.extensions = {{deviceTypeOid, deviceTypeData()}};
    return contents;
}

/// A certificate (PEM) for the public half of `key`. Self-signed if there is no issuer.
/// Owns:    the GnuTLS certificate.
/// Threads: one.
/// Fails:   by std::runtime_error with the message of GnuTLS.
class TestCertificate {
public:
    TestCertificate(const TestKey& key, const CertificateContents& contents,
                    const TestCertificate* issuer = nullptr, const TestKey* issuerKey = nullptr) {
        requireGnuTls(gnutls_x509_crt_init(&crt));
        requireGnuTls(gnutls_x509_crt_set_version(crt, 3));
        requireGnuTls(gnutls_x509_crt_set_serial(crt, "\x05", 1));
        requireGnuTls(gnutls_x509_crt_set_key(crt, key.get()));
        requireGnuTls(gnutls_x509_crt_set_activation_time(crt, contents.activation));
        requireGnuTls(gnutls_x509_crt_set_expiration_time(crt, contents.expiration));
        setName(GNUTLS_OID_X520_ORGANIZATION_NAME, contents.organization);
        setName(GNUTLS_OID_X520_ORGANIZATIONAL_UNIT_NAME, contents.organizationalUnit);
        setName(GNUTLS_OID_X520_COMMON_NAME, contents.commonName);
        for (const CertificateContents::Extension& extension : contents.extensions) {
            requireGnuTls(gnutls_x509_crt_set_extension_by_oid(
                crt, extension.oid.c_str(), extension.data.data(), extension.data.size(), 0));
        }
        if (contents.isAuthority) {
            requireGnuTls(gnutls_x509_crt_set_basic_constraints(crt, 1, -1));
            setSubjectKey(key);
            requireGnuTls(gnutls_x509_crt_set_key_usage(crt, GNUTLS_KEY_KEY_CERT_SIGN));
        }
        setAuthorityKey(issuerKey == nullptr ? key : *issuerKey);
        requireGnuTls(gnutls_x509_crt_sign2(crt, issuer == nullptr ? crt : issuer->crt,
                                            (issuerKey == nullptr ? key : *issuerKey).get(),
                                            GNUTLS_DIG_SHA256, 0));
    }
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;
    ~TestCertificate() { gnutls_x509_crt_deinit(crt); }

    [[nodiscard]] std::string pem() const { return exported(GNUTLS_X509_FMT_PEM); }
    [[nodiscard]] std::string der() const { return exported(GNUTLS_X509_FMT_DER); }

private:
    void setName(const char* oid, const std::string& value) const {
        if (!value.empty()) {
            requireGnuTls(gnutls_x509_crt_set_dn_by_oid(crt, oid, 0, value.data(),
                                                        static_cast<unsigned>(value.size())));
        }
    }

    void setSubjectKey(const TestKey& key) const {
        const std::string id = key.id();
        requireGnuTls(gnutls_x509_crt_set_subject_key_id(crt, id.data(), id.size()));
    }

    /// Sets the ID of the issuer's key, as every certificate authority does.
    void setAuthorityKey(const TestKey& issuerKey) const {
        const std::string id = issuerKey.id();
        requireGnuTls(gnutls_x509_crt_set_authority_key_id(crt, id.data(), id.size()));
    }

    [[nodiscard]] std::string exported(gnutls_x509_crt_fmt_t format) const {
        gnutls_datum_t text{};
        requireGnuTls(gnutls_x509_crt_export2(crt, format, &text));
        const std::unique_ptr<unsigned char, decltype(gnutls_free)> owner(text.data, gnutls_free);
        return {reinterpret_cast<const char*>(text.data), text.size};
    }

    gnutls_x509_crt_t crt = nullptr;
};

/// A certificate authority with its key.
class DeviceAuthority {
public:
    explicit DeviceAuthority(const std::string& name = "Device-Agent CA") : own(key, contentsOf(name)) {}

    [[nodiscard]] std::string pem() const { return own.pem(); }
    [[nodiscard]] TestCertificate issue(const TestKey& subjectKey,
                                        const CertificateContents& contents) const {
        return {subjectKey, contents, &own, &key};
    }

private:
    static CertificateContents contentsOf(const std::string& name) {
        CertificateContents contents;
        contents.commonName = name;
        contents.isAuthority = true;
        return contents;
    }

    TestKey key;
    TestCertificate own;
};

/// An established TLS session between two peers in this process, each with or without a certificate.
/// Owns:    both GnuTLS sessions and their credentials.
/// Threads: one.
/// Fails:   the constructor throws std::runtime_error if the handshake fails.
class TestSession {
public:
    struct End {
        std::string key; ///< PEM; empty: no certificate.
        std::string certificate;
    };

    TestSession(const End& serverEnd, const End& clientEnd) {
        server.open(GNUTLS_SERVER, serverEnd, client.inbox);
        client.open(GNUTLS_CLIENT, clientEnd, server.inbox);
        gnutls_certificate_server_set_request(server.session, GNUTLS_CERT_REQUEST);
        int fromServer = GNUTLS_E_AGAIN;
        int fromClient = GNUTLS_E_AGAIN;
        while (fromServer != 0 || fromClient != 0) {
            fromClient = fromClient == 0 ? 0 : proceed(client.session);
            fromServer = fromServer == 0 ? 0 : proceed(server.session);
        }
    }

    [[nodiscard]] gnutls_session_t serverSession() const { return server.session; }
    [[nodiscard]] gnutls_session_t clientSession() const { return client.session; }

private:
    /// One peer. Its inbox holds what the other peer has sent.
    struct Peer {
        Peer() = default;
        Peer(const Peer&) = delete;
        Peer& operator=(const Peer&) = delete;
        ~Peer() {
            gnutls_deinit(session);
            gnutls_certificate_free_credentials(credentials);
        }

        void open(unsigned role, const End& end, std::string& peerInbox) {
            outbox = &peerInbox;
            requireGnuTls(gnutls_init(&session, role));
            requireGnuTls(gnutls_certificate_allocate_credentials(&credentials));
            if (!end.key.empty()) {
                const gnutls_datum_t key = datum(end.key);
                const gnutls_datum_t certificate = datum(end.certificate);
                requireGnuTls(gnutls_certificate_set_x509_key_mem(credentials, &certificate, &key,
                                                                  GNUTLS_X509_FMT_PEM));
            }
            // The server announces no list of authorities, so the client sends the certificate that it has.
            requireGnuTls(gnutls_credentials_set(session, GNUTLS_CRD_CERTIFICATE, credentials));
            requireGnuTls(gnutls_priority_set_direct(session, "NORMAL:-VERS-ALL:+VERS-TLS1.2", nullptr));
            gnutls_transport_set_ptr(session, this);
            gnutls_transport_set_push_function(session, push);
            gnutls_transport_set_pull_function(session, pull);
        }

        static gnutls_datum_t datum(const std::string& text) {
            return {reinterpret_cast<unsigned char*>(const_cast<char*>(text.data())), // NOLINT: read only
                    static_cast<unsigned>(text.size())};
        }

        static ssize_t push(gnutls_transport_ptr_t self, const void* bytes, std::size_t count) {
            static_cast<Peer*>(self)->outbox->append(static_cast<const char*>(bytes), count);
            return static_cast<ssize_t>(count);
        }

        static ssize_t pull(gnutls_transport_ptr_t self, void* bytes, std::size_t count) {
            Peer& peer = *static_cast<Peer*>(self);
            if (peer.inbox.empty()) {
                gnutls_transport_set_errno(peer.session, EAGAIN);
                return -1;
            }
            const std::size_t taken = std::min(count, peer.inbox.size());
            std::memcpy(bytes, peer.inbox.data(), taken);
            peer.inbox.erase(0, taken);
            return static_cast<ssize_t>(taken);
        }

        gnutls_session_t session = nullptr;
        gnutls_certificate_credentials_t credentials = nullptr;
        std::string inbox;
        std::string* outbox = nullptr;
    };

    static int proceed(gnutls_session_t session) {
        const int result = gnutls_handshake(session);
        if (result < 0 && result != GNUTLS_E_AGAIN) {
            requireGnuTls(result);
        }
        return result;
    }

    Peer server;
    Peer client;
};

} // namespace agent::test
