#pragma once

#include "zephane/wire/Hello.h"
#include "zephane/wire/Limits.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// How an end tells what an image holds without sending it: a SHA-256 of each digestUnit of a range, counted
/// from the start of the range; the last unit may be shorter.
namespace zephane::wire {

using Digest = std::array<std::uint8_t, 32>;

struct DigestRequest {
    std::uint64_t offset = 0; ///< bytes
    std::uint32_t length = 0; ///< bytes, 1 to digestRange
};

struct DigestAnswer {
    std::int32_t code = 0; ///< 0, or a negative errno
    std::vector<Digest> digests;
};

/// How many digests tell of so many bytes.
constexpr std::size_t digestsIn(std::size_t bytes) {
    return bytes / digestUnit + (bytes % digestUnit > 0 ? 1 : 0);
}

/// Payloads: that of a request, the smallest and the largest of an answer; bytes.
constexpr std::size_t digestRequestBytes = 12;
constexpr std::size_t digestCodeBytes = 4;
constexpr std::size_t digestAnswerBytes = digestCodeBytes + digestsIn(digestRange) * sizeof(Digest);

std::vector<Digest> digestsOf(std::span<const std::uint8_t> data);

/// Payloads of frames. std::invalid_argument for what can't be.
Bytes encode(const DigestRequest& request);
Bytes encode(const DigestAnswer& answer);
/// ProtocolError for what can't be: a length of 0 or beyond digestRange, a range that ends beyond 64 bits,
/// more digests than a range can have, or none where the code is 0.
DigestRequest decodeDigestRequest(std::span<const std::uint8_t> payload);
DigestAnswer decodeDigestAnswer(std::span<const std::uint8_t> payload);

} // namespace zephane::wire
