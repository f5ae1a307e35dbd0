#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <span>

struct evp_md_st; // NOLINT(readability-identifier-naming): the name of the library

namespace zephane::wire {

/// Computes SHA-256 digests.
/// Owns:    OpenSSL's implementation of the algorithm, so that it is fetched only once.
/// Threads: any number.
/// Fails:   std::runtime_error if OpenSSL fails.
class Sha256 {
public:
    using Digest = std::array<std::uint8_t, 32>;

    Sha256();

    [[nodiscard]] Digest of(std::span<const std::uint8_t> data) const;

private:
    struct Free {
        void operator()(evp_md_st* unused) const noexcept;
    };

    std::unique_ptr<evp_md_st, Free> algorithm;
};

} // namespace zephane::wire
