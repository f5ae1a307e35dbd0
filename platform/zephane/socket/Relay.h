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

/// Carries an NBD connection over a stream of frames: the bytes of a local socket go out as NBD frames, those
/// of NBD frames that come in go to the local socket. Both ends of a connection are one of these.
/// Owns:    the local socket. Not the remote stream, which has to stay, as the relay itself has to until
///          `run` ends.
/// Threads: that of the executor of `local`, which is that of `remote` too; `send` and `stop` as well. All
///          memory is bounded: who doesn't read, waits.
/// Fails:   `run` throws asio::system_error, wire::ProtocolError. A write that isn't taken within `patience`
///          ends it with asio::error::timed_out.
class Relay {
public:
    /// Gets the frames of the other kinds, whole. What it throws ends the relay.
    using Handler = std::function<void(wire::FrameKind kind, std::span<const std::uint8_t> payload)>;

    Relay(ByteStream& remote, Filters filters, asio::local::stream_protocol::socket local, Handler handler,
          std::chrono::milliseconds patience = wire::answerTime);

    /// Until either side has ended; both are closed then. Throws what has broken it, if anything has. Once.
    asio::awaitable<void> run();
    /// Sends a frame of another kind between the others. One more of them may wait while one is being sent;
    /// wire::ProtocolError for a third, as a peer that keeps to the protocol asks for no more.
    void send(wire::FrameKind kind, std::span<const std::uint8_t> payload);
    /// Whether it was the peer who has ended it, in the orderly way.
    [[nodiscard]] bool hasRemoteEnded() const { return remoteEnded; }
    /// Ends `run` from outside, which throws nothing then.
    void stop() noexcept;

private:
    using Clock = std::chrono::steady_clock;

    asio::awaitable<void> guard(asio::awaitable<void> part);
    asio::awaitable<void> carryOut();
    asio::awaitable<void> carryIn();
    asio::awaitable<void> sendWaiting();
    asio::awaitable<void> watch();
    asio::awaitable<void> handOut(std::span<const std::uint8_t> bytes);
    asio::awaitable<void> writeLocal(std::span<const std::uint8_t> bytes);
    asio::awaitable<void> writeRemote(std::span<const std::uint8_t> frame);
    asio::awaitable<void> waitUntil(bool (Relay::*condition)() const);
    [[nodiscard]] bool isFree() const { return !isSending; }
    [[nodiscard]] bool hasWaiting() const { return waiting.has_value(); }

    ByteStream& remote;
    FilterChain reading;
    FilterChain writing;
    asio::local::stream_protocol::socket local;
    Handler handler;
    const std::chrono::milliseconds patience;
    wire::FrameReader frames;
    std::optional<std::vector<std::uint8_t>> waiting; ///< a frame of another kind, with its head
    bool isSending = false;                           ///< whoever has set it may write to `remote`
    asio::steady_timer changed; ///< never goes off: it is cancelled when something has changed
    asio::steady_timer watchdog;
    Clock::time_point remoteLimit = Clock::time_point::max(); ///< of the write under way, if there is one
    Clock::time_point localLimit = Clock::time_point::max();
    bool isStopped = false;
    bool remoteEnded = false;
    std::exception_ptr failure;
};

} // namespace zephane
