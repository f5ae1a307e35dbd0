#pragma once

#include <ctime>
#include <gnutls/x509.h>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace bekctl {

/// A certificate, with what is shown of it.
/// Fails: construction, with std::runtime_error that says what is wrong with the file.
class CertificateFile {
public:
    explicit CertificateFile(const std::string& path);

    std::string subject;
    std::string issuer;
    std::time_t begin = 0;
    std::time_t end = 0;

    /// Days until it ends, cut off; below 0 if it has ended.
    [[nodiscard]] long daysLeft(std::time_t now) const;
    /// Whether the private key in a file is its own. Throws std::runtime_error if there is none.
    [[nodiscard]] bool belongsTo(const std::string& keyPath) const;
    /// Whether the authority has signed it; when each of them is valid isn't asked.
    [[nodiscard]] bool isSignedBy(const CertificateFile& authority) const;
    /// All its bytes, as they go over the network.
    [[nodiscard]] std::string bytes() const;

private:
    struct Release {
        void operator()(gnutls_x509_crt_t owned) const noexcept { gnutls_x509_crt_deinit(owned); }
    };
    std::unique_ptr<std::remove_pointer_t<gnutls_x509_crt_t>, Release> handle;
};

} // namespace bekctl
