#pragma once

#include "zephane/wire/Hello.h"

#include <functional>
#include <optional>
#include <string>

/// The handshake, without a network: whole messages in, whole messages out. One object is one connection.
/// Threads: one.
/// Fails:   ProtocolError for a message that isn't what it should be; the connection is to be closed then.
namespace zephane::wire {

class ClientHandshake {
public:
    /// `hello` without its nonce. std::invalid_argument for an empty secret and a path that can't be.
    ClientHandshake(ClientHello hello, const std::string& secret, const ChannelBinding& channel);

    [[nodiscard]] const Bytes& hello() const { return helloMessage; }
    /// The proof to send, for the server's hello.
    Bytes answer(std::span<const std::uint8_t> serverHello);
    /// What the server says. A verdict that grants anything has been proven; ProtocolError if it can't be.
    Verdict finish(std::span<const std::uint8_t> verdict);

private:
    Bytes helloMessage;
    std::uint64_t asked;
    ProofKey key;
    ChannelBinding channel;
    Bytes transcript;
};

class ServerHandshake {
public:
    /// The key of an image, if there is such an image. Keys are made beforehand, as the time of making one
    /// would tell that the image exists.
    using FindKey = std::function<std::optional<ProofKey>(const ImageName& image)>;

    explicit ServerHandshake(const ChannelBinding& channel) : channel(channel) {}

    /// The hello to send, for that of the client.
    Bytes answer(std::span<const std::uint8_t> clientHello, const FindKey& find);
    /// Whether the client holds the secret of the image that it asked for. An image that doesn't exist and a
    /// wrong secret are the same, and take the same time.
    [[nodiscard]] bool check(std::span<const std::uint8_t> clientProof);
    /// What the client asked for.
    [[nodiscard]] const ClientHello& asked() const { return hello; }
    /// The last message, to a client that has been checked.
    Bytes grant(std::uint64_t flags);

    /// The last message to all others.
    static Bytes refuse(std::int32_t code, const std::string& text);

private:
    ChannelBinding channel;
    ClientHello hello;
    std::optional<ProofKey> key;
    bool isProven = false;
    Bytes transcript;
};

} // namespace zephane::wire
