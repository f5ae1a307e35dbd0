#pragma once

#include "zephane/wire/Hello.h"
#include "zephane/wire/Limits.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

/// Digests let the client compare data with the image without transferring it: one SHA-256 for each
/// digestUnit of a range, counted from the start of the range. The last unit may be shorter.
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

/// The number of digests for a range of this many bytes.
constexpr std::size_t digestsIn(std::size_t bytes) {
    return bytes / digestUnit + (bytes % digestUnit > 0 ? 1 : 0);
}

/// Payload sizes in bytes: of a request, and the smallest and the largest of an answer.
constexpr std::size_t digestRequestBytes = 12;
constexpr std::size_t digestCodeBytes = 4;
constexpr std::size_t digestAnswerBytes = digestCodeBytes + digestsIn(digestRange) * sizeof(Digest);

std::vector<Digest> digestsOf(std::span<const std::uint8_t> data);

/// Encode the payload of a frame. Throw std::invalid_argument for an invalid request or answer.
Bytes encode(const DigestRequest& request);
Bytes encode(const DigestAnswer& answer);
/// Throw ProtocolError for an invalid payload: a length of 0 or beyond digestRange, a range that ends beyond
/// 64 bits, more digests than a range can have, digests with another code than 0, or none with 0.
DigestRequest decodeDigestRequest(std::span<const std::uint8_t> payload);
DigestAnswer decodeDigestAnswer(std::span<const std::uint8_t> payload);

} // namespace zephane::wire
