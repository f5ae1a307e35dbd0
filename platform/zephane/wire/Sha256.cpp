#include "zephane/wire/Sha256.h"

#include <openssl/evp.h>
#include <stdexcept>

namespace zephane::wire {

Sha256::Sha256() : algorithm(EVP_MD_fetch(nullptr, "SHA256", nullptr)) {
    if (!algorithm) {
        throw std::runtime_error("OpenSSL has no SHA-256");
    }
}

Sha256::Digest Sha256::of(std::span<const std::uint8_t> data) const {
    Digest digest{};
    if (EVP_Digest(data.data(), data.size(), digest.data(), nullptr, algorithm.get(), nullptr) != 1) {
        throw std::runtime_error("OpenSSL can't compute a SHA-256");
    }
    return digest;
}

void Sha256::Free::operator()(evp_md_st* unused) const noexcept {
    EVP_MD_free(unused);
}

} // namespace zephane::wire
