#pragma once

#include <openssl/ssl.h>

namespace zephane {

/// Gives a server a key and a certificate that are made just now and prove nothing. std::runtime_error if
/// OpenSSL can't.
void useSelfSignedCertificate(SSL_CTX& context);

} // namespace zephane
