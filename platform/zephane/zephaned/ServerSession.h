#pragma once

#include "zephane/nbd/NbdImage.h"
#include "zephane/socket/Relay.h"
#include "zephane/socket/TlsStream.h"
#include "zephane/wire/Digests.h"
#include "zephane/wire/Handshake.h"
#include "zephane/zephaned/CountingStream.h"
#include "zephane/zephaned/Images.h"
#include "zephane/zephaned/LineLimit.h"
#include "zephane/zephaned/Log.h"
#include "zephane/zephaned/Refusal.h"
#include "zephane/zephaned/Sessions.h"

#include <asio/thread_pool.hpp>
#include <atomic>
#include <memory>
#include <optional>
#include <string>

namespace zephane {

/// The parts of a server that all its connections share.
struct SessionServices {
    const Log& log;
    Images& images;
    Sessions& sessions;
    asio::ssl::context& tls;
    asio::thread_pool& workers; ///< for calls that wait for an engine
    LineLimit refusals{};       ///< limits the log lines about refused clients
    std::atomic<bool> compression{true};
};

/// One connection of a client: the handshake, and then its NBD connection, relayed to the image's engine.
/// Owns:    the connection and the lease of the image; a session keeps itself alive until both have ended.
/// Threads: any for `start` and `stop`; all other work is done on the socket's strand.
/// Fails:   the constructor throws asio::system_error if the client has gone already; any later failure ends
///          the connection and is logged.
class ServerSession : public std::enable_shared_from_this<ServerSession> {
public:
    /// `socket` has just been accepted, and its executor is a strand. `services` must outlive the session.
    ServerSession(asio::ip::tcp::socket socket, SessionServices& services);

    void start();
    void stop(const std::string& why);

private:
    using Clock = std::chrono::steady_clock;
    using Local = asio::local::stream_protocol::socket;

    asio::awaitable<void> run();
    asio::awaitable<void> converse();
    asio::awaitable<void> admit();
    asio::awaitable<void> prove(wire::ServerHandshake& handshake);
    asio::awaitable<Local> openImage(const wire::ClientHello& asked);
    asio::awaitable<void> waitForLease(const wire::ClientHello& asked);
    asio::awaitable<void> openDigestImage();
    asio::awaitable<void> refuse(const Refusal& refusal);
    asio::awaitable<void> waitUntil(Clock::time_point time);
    [[nodiscard]] std::uint64_t grantable(const wire::ClientHello& asked) const;
    void serve(Local local);
    void handleFrame(wire::FrameKind kind, std::span<const std::uint8_t> payload);
    void answer(const wire::DigestAnswer& digests);
    void limitHandshake();
    void close(const std::string& why);
    void finish();
    void sayBeginning();
    void sayEnd();
    void sayRefusal();

    SessionServices& services;
    const asio::any_io_executor strand;
    const Clock::time_point accepted = Clock::now();
    const std::string peer;
    TlsStream tls;
    CountingStream remote;
    asio::steady_timer handshakeLimit;
    Sessions::Number number = 0;
    Clock::time_point helloTime;
    std::string image;       ///< the name of the image asked for
    bool isProven = false;   ///< the client holds the image's secret
    bool isAdmitted = false; ///< the client has been granted the image
    std::string endReason;   ///< why the connection has ended; empty while it hasn't
    std::uint64_t granted = 0;
    std::optional<Images::Lease> lease;
    std::unique_ptr<NbdImage> digestImage; ///< only a worker uses it while isDigesting
    bool isDigesting = false;
    std::optional<Relay> relay;
};

} // namespace zephane
