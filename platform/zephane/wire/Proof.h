#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>

namespace zephane::wire {

using Proof = std::array<std::uint8_t, 32>;
/// A value that only the two ends of one TLS connection know (RFC 9266, tls-exporter).
using ChannelBinding = std::array<std::uint8_t, 32>;

enum class Role { client, server };

/// The key with which the holder of a secret proves itself. The secret itself isn't kept.
/// Owns:    the key, which the destructor wipes from memory.
/// Threads: any number for `prove`, which doesn't change the key.
/// Fails:   std::runtime_error if OpenSSL fails.
class ProofKey {
public:
    /// Throws std::invalid_argument for an empty secret.
    explicit ProofKey(const std::string& secret);
    ProofKey(const ProofKey&) = default;
    ProofKey(ProofKey&&) noexcept = default;
    ProofKey& operator=(const ProofKey&) = default;
    ProofKey& operator=(ProofKey&&) noexcept = default;
    ~ProofKey();
    /// A random key for an image that doesn't exist: no proof ever matches it.
    static ProofKey random();

    /// HMAC-SHA-256 over the role, the transcript and the channel.
    [[nodiscard]] Proof prove(Role role, std::span<const std::uint8_t> transcript,
                              const ChannelBinding& channel) const;

private:
    ProofKey() = default;

    std::array<std::uint8_t, 32> key{};
};

/// Takes the same time wherever the two differ, so that the time reveals nothing.
bool areEqual(const Proof& one, const Proof& other);

/// Fills `bytes` with cryptographically secure random bytes. Throws std::runtime_error if there are none.
void fillRandomly(std::span<std::uint8_t> bytes);

} // namespace zephane::wire
