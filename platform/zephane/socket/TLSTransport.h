#pragma once

#include "zephane/socket/Transport.h"
#include "zephane/wire/Limits.h"

#include <chrono>
#include <memory>
#include <string>

namespace zephane {

/// The TLS layer of a connection. See Transport.
class TLSTransport : public Transport {
public:
    /// Files of a certificate of the client's own and of the authorities it trusts. Both empty: the client
    /// shows no certificate and takes any, which proves nothing; the handshake above proves both sides.
    /// std::invalid_argument for others than empty ones, which no server of ours asks for. `patience` is what
    /// connecting may take; only a name that the resolver doesn't give up in that time takes longer.
    TLSTransport(const std::string& certificate, const std::string& authority,
                 std::chrono::milliseconds patience = wire::handshakeTime);
    TLSTransport(const TLSTransport&) = delete;
    TLSTransport& operator=(const TLSTransport&) = delete;
    ~TLSTransport() override;

    asio::awaitable<void> connect(const std::string& host, unsigned short port) override;
    [[nodiscard]] wire::ChannelBinding channelBinding() override;
    asio::awaitable<std::size_t> readSome(asio::mutable_buffer buffer) override;
    asio::awaitable<void> write(asio::const_buffer bytes) override;
    void close() noexcept override;

private:
    class Link;

    std::chrono::milliseconds patience;
    std::shared_ptr<Link> link; ///< shared with the timer that ends an attempt to connect
};

} // namespace zephane
