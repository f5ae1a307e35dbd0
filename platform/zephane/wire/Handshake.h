#pragma once

#include "zephane/wire/Hello.h"

#include <functional>
#include <optional>
#include <string>

/// The handshake, without a network: complete messages in, complete messages out. Each object is for one
/// connection.
namespace zephane::wire {

/// The client's side: `hello` and `answer` give what to send, `finish` takes the verdict.
/// Owns:    the key and the transcript of the connection.
/// Threads: one at a time.
/// Fails:   ProtocolError for an invalid message; the connection must then be closed.
class ClientHandshake {
public:
    /// `hello` needs no nonce. Throws std::invalid_argument for an empty secret and for an invalid path or
    /// flags.
    ClientHandshake(ClientHello hello, const std::string& secret, const ChannelBinding& channel);

    [[nodiscard]] const Bytes& hello() const { return helloMessage; }
    /// Takes the server's hello and returns the proof to send.
    Bytes answer(std::span<const std::uint8_t> serverHello);
    /// Takes the server's verdict. Throws ProtocolError if it grants access without a valid proof of the
    /// server, or grants more than the client asked for.
    Verdict finish(std::span<const std::uint8_t> verdict);

private:
    Bytes helloMessage;
    std::uint64_t asked;
    ProofKey key;
    ChannelBinding channel;
    Bytes transcript;
};

/// The server's side: `answer`, `check`, and then `grant` or `refuse`, in this order.
/// Owns:    the key and the transcript of the connection.
/// Threads: one at a time.
/// Fails:   ProtocolError for an invalid message; the connection must then be closed.
class ServerHandshake {
public:
    /// Returns the key of an image, if there is such an image. Keys must be computed beforehand: otherwise
    /// the time for it would reveal that the image exists.
    using FindKey = std::function<std::optional<ProofKey>(const ImageName& image)>;

    explicit ServerHandshake(const ChannelBinding& channel) : channel(channel) {}

    /// Takes the client's hello and returns the hello to send.
    Bytes answer(std::span<const std::uint8_t> clientHello, const FindKey& find);
    /// Whether the client holds the secret of the image. An image that doesn't exist gives the same result as
    /// a wrong secret, in the same time.
    [[nodiscard]] bool check(std::span<const std::uint8_t> clientProof);
    /// The hello of the client.
    [[nodiscard]] const ClientHello& asked() const { return hello; }
    /// The verdict to send to a client that `check` has accepted. Throws std::logic_error for any other
    /// client, and for flags that the client didn't ask for.
    Bytes grant(std::uint64_t flags);

    /// The verdict to send to a client that is refused.
    static Bytes refuse(std::int32_t code, const std::string& text);

private:
    ChannelBinding channel;
    ClientHello hello;
    std::optional<ProofKey> key;
    bool isProven = false;
    Bytes transcript;
};

} // namespace zephane::wire
