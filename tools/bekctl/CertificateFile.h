#pragma once

#include <ctime>
#include <gnutls/x509.h>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace bekctl {

/// A certificate, with the parts of it that are shown.
/// Owns:    the GnuTLS handle.
/// Threads: one at a time.
/// Fails:   the constructor throws std::runtime_error, which says what is wrong with the file.
class CertificateFile {
public:
    explicit CertificateFile(const std::string& path);

    std::string subject;
    std::string issuer;
    std::time_t begin = 0;
    std::time_t end = 0;

    /// Whole days until the certificate ends; below 0 if it has ended.
    [[nodiscard]] long daysLeft(std::time_t now) const;
    /// Whether the private key in this file belongs to the certificate. Throws std::runtime_error if there is
    /// no key.
    [[nodiscard]] bool belongsTo(const std::string& keyPath) const;
    /// Whether the authority has signed the certificate. Doesn't check when either of them is valid.
    [[nodiscard]] bool isSignedBy(const CertificateFile& authority) const;
    /// The DER encoding, as it goes over the network.
    [[nodiscard]] std::string bytes() const;

private:
    struct Release {
        void operator()(gnutls_x509_crt_t owned) const noexcept { gnutls_x509_crt_deinit(owned); }
    };
    std::unique_ptr<std::remove_pointer_t<gnutls_x509_crt_t>, Release> handle;
};

} // namespace bekctl
