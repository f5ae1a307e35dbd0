#include "zephane/wire/Proof.h"

#include "zephane/wire/Fields.h"
#include "zephane/wire/Sha256.h"

#include <limits>
#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <stdexcept>

namespace zephane::wire {

namespace {

Proof hmac(std::span<const std::uint8_t> key, std::span<const std::uint8_t> data) {
    Proof result{};
    std::size_t length = 0;
    if (EVP_Q_mac(nullptr, "HMAC", nullptr, "SHA256", nullptr, key.data(), key.size(), data.data(),
                  data.size(), result.data(), result.size(), &length) == nullptr ||
        length != result.size()) {
        throw std::runtime_error("OpenSSL can't compute an HMAC");
    }
    return result;
}

/// HKDF-SHA-256 (RFC 5869). The key is exactly one block long.
Proof derivedFrom(const std::string& secret) {
    Proof extracted = hmac(bytesOf("zephane 1"), bytesOf(secret));
    const Proof expanded = hmac(extracted, bytesOf("proof\x01"));
    OPENSSL_cleanse(extracted.data(), extracted.size());
    return expanded;
}

const char* nameOf(Role role) {
    return role == Role::client ? "client" : "server";
}

} // namespace

ProofKey::ProofKey(const std::string& secret) {
    if (secret.empty()) {
        throw std::invalid_argument("an empty secret proves nothing");
    }
    key = derivedFrom(secret);
}

ProofKey::~ProofKey() {
    OPENSSL_cleanse(key.data(), key.size());
}

ProofKey ProofKey::random() {
    ProofKey made;
    fillRandomly(made.key);
    return made;
}

Proof ProofKey::prove(Role role, std::span<const std::uint8_t> transcript,
                      const ChannelBinding& channel) const {
    FieldWriter data;
    data.bytes(bytesOf(nameOf(role)));
    data.number(std::uint8_t{0});
    data.bytes(Sha256().of(transcript));
    data.bytes(channel);
    return hmac(key, data.take());
}

bool areEqual(const Proof& one, const Proof& other) {
    return CRYPTO_memcmp(one.data(), other.data(), one.size()) == 0;
}

void fillRandomly(std::span<std::uint8_t> bytes) {
    if (bytes.size() > std::numeric_limits<int>::max() ||
        RAND_bytes(bytes.data(), static_cast<int>(bytes.size())) != 1) {
        throw std::runtime_error("OpenSSL has no random bytes");
    }
}

} // namespace zephane::wire
