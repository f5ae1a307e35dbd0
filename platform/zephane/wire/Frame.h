#pragma once

#include "zephane/wire/Limits.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

/// What the stream carries once the handshake is done: frames of a kind, a length and a payload.
namespace zephane::wire {

enum class FrameKind : std::uint8_t {
    nbd = 0,           ///< bytes of the NBD connection, in either direction
    digestRequest = 1, ///< to the server: a range, of which it is to tell the digests
    digestAnswer = 2,  ///< to the client
};

constexpr std::size_t frameHeadBytes = 4; ///< a byte for the kind, three for the length

/// The head of a frame whose payload follows. std::invalid_argument if it can't be.
std::array<std::uint8_t, frameHeadBytes> frameHead(FrameKind kind, std::size_t payloadBytes);

/// Takes frames out of a stream that comes in pieces of any size. Holds the payload of one digest
/// answer at most.
/// Threads: one.
/// Fails:   ProtocolError for a frame of an unknown kind, or of a length that the kind can't have.
class FrameReader {
public:
    struct Piece {
        FrameKind kind = FrameKind::nbd;
        std::span<const std::uint8_t> payload;
    };

    /// The next piece of `input`, which shrinks by what was used. Of NBD frames, what is there is handed out
    /// at once, as a part of `input`; others when they are whole. Nothing: more input is needed. The piece
    /// holds until the next call.
    std::optional<Piece> next(std::span<const std::uint8_t>& input);

private:
    bool takeHead(std::span<const std::uint8_t>& input);
    /// The front of `input`, which shrinks by it.
    static std::span<const std::uint8_t> take(std::span<const std::uint8_t>& input, std::size_t most);

    std::array<std::uint8_t, frameHeadBytes> head{};
    std::size_t headFilled = 0;
    FrameKind kind = FrameKind::nbd;
    std::size_t left = 0; ///< of the payload, once the head is whole
    std::vector<std::uint8_t> payload;
};

} // namespace zephane::wire
