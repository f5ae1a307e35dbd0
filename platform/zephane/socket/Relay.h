#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/socket/FilterChain.h"
#include "zephane/socket/Filters.h"
#include "zephane/wire/Frame.h"

#include <asio/local/stream_protocol.hpp>
#include <asio/steady_timer.hpp>
#include <chrono>
#include <cstdint>
#include <exception>
#include <functional>
#include <optional>
#include <span>
#include <vector>

namespace zephane {

/// Carries an NBD connection over a stream of frames: bytes read from a local socket are sent as NBD frames,
/// and the payload of received NBD frames is written to the local socket. Client and server each run one
/// relay.
/// Owns:    the local socket. The remote stream must outlive the relay, and the relay must exist until `run`
///          ends.
/// Threads: only that of the executor of `local`, also for `send` and `stop`; `remote` must use the same
///          executor. Memory is bounded: if one side doesn't read, the other one waits.
/// Fails:   `run` throws asio::system_error or wire::ProtocolError. A write that isn't accepted within
///          `patience` ends it with asio::error::timed_out.
class Relay {
public:
    /// Receives each complete frame of another kind than NBD. An exception from it ends the relay.
    using Handler = std::function<void(wire::FrameKind kind, std::span<const std::uint8_t> payload)>;

    Relay(ByteStream& remote, Filters filters, asio::local::stream_protocol::socket local, Handler handler,
          std::chrono::milliseconds patience = wire::answerTime);

    /// Runs until either side has ended, and closes both then. Throws the failure that has broken the
    /// connection, if any. May be called once.
    asio::awaitable<void> run();
    /// Sends a frame of another kind between the NBD frames. While one is being sent, one more may wait; a
    /// third one throws wire::ProtocolError, because a peer that follows the protocol doesn't ask for more.
    void send(wire::FrameKind kind, std::span<const std::uint8_t> payload);
    /// Whether the peer has closed the connection cleanly.
    [[nodiscard]] bool hasRemoteEnded() const { return remoteEnded; }
    /// Ends `run`, which then throws nothing.
    void stop() noexcept;

private:
    using Clock = std::chrono::steady_clock;

    asio::awaitable<void> guard(asio::awaitable<void> part);
    asio::awaitable<void> localToRemote();
    asio::awaitable<void> remoteToLocal();
    asio::awaitable<void> sendPendingFrames();
    asio::awaitable<void> watch();
    asio::awaitable<void> dispatch(std::span<const std::uint8_t> bytes);
    asio::awaitable<void> writeLocal(std::span<const std::uint8_t> bytes);
    asio::awaitable<void> writeRemote(std::span<const std::uint8_t> frame);
    asio::awaitable<void> waitUntil(bool (Relay::*condition)() const);
    [[nodiscard]] bool isFree() const { return !isSending; }
    [[nodiscard]] bool hasPendingFrame() const { return pendingFrame.has_value(); }

    ByteStream& remote;
    FilterChain reading;
    FilterChain writing;
    asio::local::stream_protocol::socket local;
    Handler handler;
    const std::chrono::milliseconds patience;
    wire::FrameReader frames;
    std::optional<std::vector<std::uint8_t>> pendingFrame; ///< the next frame of another kind, with its head
    bool isSending = false;                                ///< its setter may write to `remote`
    asio::steady_timer changed;                            ///< never expires: cancelled to wake all waiters
    asio::steady_timer watchdog;
    Clock::time_point remoteLimit = Clock::time_point::max(); ///< deadline of the current write, if any
    Clock::time_point localLimit = Clock::time_point::max();
    bool isStopped = false;
    bool remoteEnded = false;
    std::exception_ptr failure;
};

} // namespace zephane
