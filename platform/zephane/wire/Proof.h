#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace zephane::wire {

using Proof = std::array<std::uint8_t, 32>;
/// What only the two ends of one TLS connection know (RFC 9266, tls-exporter).
using ChannelBinding = std::array<std::uint8_t, 32>;

enum class Role { client, server };

/// What the holder of a secret proves itself by. The secret itself is forgotten.
/// Owns:    the key, which is wiped from memory with the object.
/// Fails:   std::runtime_error if OpenSSL can't compute.
class ProofKey {
public:
    /// std::invalid_argument for an empty secret.
    explicit ProofKey(const std::string& secret);
    ProofKey(const ProofKey&) = default;
    ProofKey(ProofKey&&) noexcept = default;
    ProofKey& operator=(const ProofKey&) = default;
    ProofKey& operator=(ProofKey&&) noexcept = default;
    ~ProofKey();
    /// One that nobody has, for images that don't exist: what it is compared with never fits.
    static ProofKey random();

    /// HMAC-SHA-256 over the role, the transcript and the channel.
    [[nodiscard]] Proof prove(Role role, std::span<const std::uint8_t> transcript,
                              const ChannelBinding& channel) const;

private:
    ProofKey() = default;

    std::array<std::uint8_t, 32> key{};
};

/// Takes the same time wherever they differ.
bool areEqual(const Proof& one, const Proof& other);

/// Random bytes that nobody can guess. std::runtime_error if there are none.
void fillRandomly(std::span<std::uint8_t> bytes);

} // namespace zephane::wire
