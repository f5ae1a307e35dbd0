#pragma once

#include "zephane/socket/TlsStream.h"
#include "zephane/socket/Transport.h"

#include <optional>
#include <string>

namespace zephane {

/// The TLS layer of a connection. See Transport.
class TLSTransport : public Transport {
public:
    /// Files of a certificate of the client's own and of the authorities it trusts. Both empty: the client shows
    /// no certificate and takes any, which proves nothing; the handshake above proves both sides.
    /// std::invalid_argument for others than empty ones, which no server of ours asks for.
    TLSTransport(std::string certificate, std::string authority);

    asio::awaitable<void> connect(const std::string& host, unsigned short port) override;
    [[nodiscard]] wire::ChannelBinding channelBinding() override;
    asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) override;
    asio::awaitable<void> write(asio::const_buffer bytes) override;
    void close() noexcept override;

private:
    asio::ssl::context context;
    std::optional<TlsStream> stream;
};

} // namespace zephane
