#pragma once

#include "ordak/DistinguishedName.h"

#include <ctime>
#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <memory>
#include <string>
#include <type_traits>

namespace agent::ordak {

/// One X.509 certificate, with the parts of its names that the agent uses.
/// Owns:    the GnuTLS handle; an object that has been moved from has none.
/// Threads: one thread at a time.
/// Fails:   the constructors throw std::runtime_error or std::invalid_argument if they can't load the
///          certificate. A name that can't be read, or is too long to be real, counts as empty.
class Certificate {
public:
    enum class Kind { local = 0, peer = 1 };

    /// Loads the local certificate of a TLS session, or the peer's.
    Certificate(Kind kind, gnutls_session_t session);
    /// Loads the first certificate of a PEM file of at most 20,000 bytes.
    explicit Certificate(const std::string& path);

    [[nodiscard]] const DistinguishedName& issuer() const noexcept { return issuerName; }
    [[nodiscard]] const DistinguishedName& subject() const noexcept { return subjectName; }
    [[nodiscard]] Kind kind() const noexcept { return ownKind; }
    [[nodiscard]] gnutls_x509_crt_t handle() const noexcept { return crt.get(); }

    /// Checks that `signature` of `data` was made with the key of this certificate, which must be valid now.
    /// Returns GnuTLS's result: negative if the signature is wrong, GNUTLS_E_EXPIRED if the certificate has
    /// expired. Throws std::runtime_error if the certificate isn't valid yet or its key can't be loaded.
    [[nodiscard]] int verifyData(gnutls_sign_algorithm_t algorithm, const std::string& data,
                                 const std::string& signature) const;

private:
    struct Release {
        void operator()(gnutls_x509_crt_t owned) const noexcept { gnutls_x509_crt_deinit(owned); }
    };
    using Handle = std::unique_ptr<std::remove_pointer_t<gnutls_x509_crt_t>, Release>;

    static Handle makeHandle();
    void importLocal(gnutls_session_t session);
    void importPeer(gnutls_session_t session);
    void readFields();

    DistinguishedName issuerName;
    DistinguishedName subjectName;
    Kind ownKind;
    Handle crt;
    std::time_t activationTime = 0;
    std::time_t expirationTime = 0;
};

} // namespace agent::ordak
