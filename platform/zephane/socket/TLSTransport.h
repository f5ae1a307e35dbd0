#pragma once

#include "zephane/socket/Transport.h"
#include "zephane/wire/Limits.h"

#include <chrono>
#include <memory>
#include <string>

namespace zephane {

/// The TLS layer of a client's connection.
/// Owns:    the connection, from the look-up of the host's name on.
/// Threads: one at a time, that of the executor on which `connect` runs.
/// Fails:   asio::system_error, asio::error::timed_out when connecting takes too long; std::logic_error for
///          calls before `connect`.
class TLSTransport : public Transport {
public:
    /// `certificate` and `authority` must be empty, or std::invalid_argument is thrown: no server of ours
    /// asks for certificates. The client shows no certificate and accepts any; TLS proves nothing here, but
    /// the handshake inside it proves both sides. `patience` is the time limit for connecting, unless the
    /// resolver takes longer.
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
    class Connection;

    std::chrono::milliseconds patience;
    std::shared_ptr<Connection> connection; ///< shared with the timer that ends `connect`
};

} // namespace zephane
