#pragma once

#include "zephane/socket/ByteStream.h"
#include "zephane/socket/Filter.h"
#include "zephane/wire/Frame.h"

#include <asio/local/stream_protocol.hpp>

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <span>
#include <vector>

namespace zephane {

/// The filters of a connection; either list may be empty. Each is shared with nobody who uses it.
struct Filters {
    std::vector<std::shared_ptr<Filter>> reading;
    std::vector<std::shared_ptr<Filter>> writing; ///< in the order in which the bytes pass them
};

/// Carries an NBD connection over a stream of frames: the bytes of a local socket go out as NBD frames, those of
/// NBD frames that come in go to the local socket. Both ends of a connection are one of these.
/// Owns:    the local socket. Not the remote stream, which has to stay.
/// Threads: that of the executor of `remote`; `send` too. All memory is bounded: who doesn't read, waits.
/// Fails:   `run` throws asio::system_error, wire::ProtocolError. A write that isn't taken within
///          wire::answerTime ends it with asio::error::timed_out.
class Relay {
public:
    /// Gets the frames of the other kinds, whole. What it throws ends the relay.
    using Handler = std::function<void(wire::FrameKind kind, std::span<const std::uint8_t> payload)>;

    Relay(ByteStream& remote, Filters filters, asio::local::stream_protocol::socket local, Handler handler);

    /// Until either side has ended; both are closed then. Throws what has broken it, if anything has. Once.
    asio::awaitable<void> run();
    /// Sends a frame of another kind between the others. At most one of them may be on its way.
    void send(wire::FrameKind kind, std::vector<std::uint8_t> payload);
    /// Ends `run` from outside.
    void stop() noexcept;
};

} // namespace zephane
