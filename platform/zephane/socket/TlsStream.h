#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/wire/Proof.h"

#include <asio/ip/tcp.hpp>
#include <asio/ssl.hpp>

namespace zephane {

/// The context of a client or a server: TLS 1.3 only, without tickets, resumption and early data. The
/// client's context accepts any certificate, because the proofs over the channel are what counts; the
/// server's generates its own key and certificate. Throws asio::system_error or std::runtime_error if OpenSSL
/// fails.
asio::ssl::context clientContext();
asio::ssl::context serverContext();

/// TLS 1.3 over a connected socket.
/// Owns:    the socket; the destructor closes it.
/// Threads: one at a time, that of the socket's executor.
/// Fails:   asio::system_error; the connection can't be used any more then.
class TlsStream : public ByteStream {
public:
    /// Sets TCP_NODELAY, keepalive, and a TCP_USER_TIMEOUT of wire::answerTime. `context` must outlive the
    /// stream.
    TlsStream(asio::ip::tcp::socket socket, asio::ssl::context& context);

    asio::awaitable<void> handshake(asio::ssl::stream_base::handshake_type side);
    /// Call this after the handshake. Throws std::runtime_error if OpenSSL fails.
    [[nodiscard]] wire::ChannelBinding channelBinding();

    asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) override;
    asio::awaitable<void> write(asio::const_buffer bytes) override;
    void close() noexcept override;

private:
    asio::ssl::stream<asio::ip::tcp::socket> stream;
};

} // namespace zephane
