#pragma once

#include <openssl/ssl.h>

namespace zephane {

/// Generates a key and a self-signed certificate for a server. They don't authenticate the server. Throws
/// std::runtime_error if OpenSSL fails.
void useSelfSignedCertificate(SSL_CTX& context);

} // namespace zephane
