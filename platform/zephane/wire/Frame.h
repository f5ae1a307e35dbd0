#pragma once

#include "zephane/wire/Limits.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// The stream consists of frames once the handshake is done: each has a kind, a length and a payload.
namespace zephane::wire {

enum class FrameKind : std::uint8_t {
    nbd = 0,           ///< bytes of the NBD connection, in either direction
    digestRequest = 1, ///< to the server: the range whose digests the client wants
    digestAnswer = 2,  ///< to the client
};

constexpr std::size_t frameHeadBytes = 4; ///< a byte for the kind, three for the length

/// The head of a frame, to be sent before its payload. Throws std::invalid_argument for an invalid frame.
std::array<std::uint8_t, frameHeadBytes> frameHead(FrameKind kind, std::size_t payloadBytes);

/// Reads frames from a stream that arrives in pieces of any size.
/// Owns:    a buffer for the payload of at most one digest request or answer.
/// Threads: one at a time.
/// Fails:   ProtocolError for a frame of an unknown kind, or with a length that is invalid for its kind.
class FrameReader {
public:
    struct Piece {
        FrameKind kind = FrameKind::nbd;
        std::span<const std::uint8_t> payload;
    };

    /// Returns the next piece, and removes the bytes it used from the front of `input`. Payload of an NBD
    /// frame is returned as it arrives, as a part of `input`; any other frame when it is complete. None means
    /// that more input is needed. The piece is valid until the next call.
    std::optional<Piece> next(std::span<const std::uint8_t>& input);

private:
    bool takeHead(std::span<const std::uint8_t>& input);
    /// Removes at most `most` bytes from the front of `input`, and returns them.
    static std::span<const std::uint8_t> take(std::span<const std::uint8_t>& input, std::size_t most);

    std::array<std::uint8_t, frameHeadBytes> head{};
    std::size_t headFilled = 0;
    FrameKind kind = FrameKind::nbd;
    std::size_t left = 0; ///< bytes left of the payload, once the head is complete
    std::vector<std::uint8_t> payload;
};

} // namespace zephane::wire
