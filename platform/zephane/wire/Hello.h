#pragma once

#include "zephane/wire/Proof.h"

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

/// The messages of the handshake, in the order in which they are sent. Each is a 16-bit length and a body,
/// big endian, together at most messageBytes; docs/formats/zephane.md has the layout.
namespace zephane::wire {

using Bytes = std::vector<std::uint8_t>;
using Nonce = std::array<std::uint8_t, 32>;
using ClientId = std::array<std::uint8_t, 16>;

struct ImageName {
    std::string path;
    std::uint64_t volumeId = 0;

    auto operator<=>(const ImageName&) const = default;
};

/// The client's first message: what it asks for.
struct ClientHello {
    std::uint64_t flags = 0;
    ImageName image;
    ClientId client{}; ///< random, the same for all connections of one process
    Nonce nonce{};
};

struct ServerHello {
    Nonce nonce{};
};

struct ClientProof {
    Proof proof{};
};

/// The server's answer to the proof. A client without the secret learns nothing but a refusal.
struct Verdict {
    std::int32_t code = 0;     ///< 0, or a negative errno
    std::string text;          ///< why, if the code isn't 0; UTF-8 without control characters
    std::uint64_t granted = 0; ///< the flags in force from here on, if the code is 0
    Proof proof{};             ///< of the server, if the code is 0
};

/// Encode a complete message, including its length. Throw std::invalid_argument for a message that the decode
/// functions would refuse.
Bytes encode(const ClientHello& hello);
Bytes encode(const ServerHello& hello);
Bytes encode(const ClientProof& proof);
Bytes encode(const Verdict& verdict);

/// The size of the message that begins with these two bytes, including its length field. Throws ProtocolError
/// for more than messageBytes.
std::size_t sizeOfMessage(std::span<const std::uint8_t, 2> head);

/// Decode a complete message. Throw ProtocolError for one that is cut short, too long, or invalid.
ClientHello decodeClientHello(std::span<const std::uint8_t> message);
ServerHello decodeServerHello(std::span<const std::uint8_t> message);
ClientProof decodeClientProof(std::span<const std::uint8_t> message);
Verdict decodeVerdict(std::span<const std::uint8_t> message);

} // namespace zephane::wire
