#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/wire/Proof.h"

#include <asio/ip/tcp.hpp>
#include <asio/ssl.hpp>

namespace zephane {

/// A context of one end: TLS 1.3 and nothing else, no tickets, no resumption, no early data. That of a client
/// takes any certificate, as it is the proofs over the channel that count; that of a server makes a key and a
/// certificate of its own. asio::system_error or std::runtime_error if OpenSSL can't.
asio::ssl::context clientContext();
asio::ssl::context serverContext();

/// TLS 1.3 over a connected socket. See ByteStream.
class TlsStream : public ByteStream {
public:
    /// Sets TCP_NODELAY, keepalive and TCP_USER_TIMEOUT of wire::answerTime. `context` has to stay.
    TlsStream(asio::ip::tcp::socket socket, asio::ssl::context& context);

    asio::awaitable<void> handshake(asio::ssl::stream_base::handshake_type side);
    /// Once the handshake is done. std::runtime_error if OpenSSL can't tell.
    [[nodiscard]] wire::ChannelBinding channelBinding();

    asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) override;
    asio::awaitable<void> write(asio::const_buffer bytes) override;
    void close() noexcept override;

private:
    asio::ssl::stream<asio::ip::tcp::socket> stream;
};

} // namespace zephane
