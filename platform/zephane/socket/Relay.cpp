#include "zephane/socket/Relay.h"

#include "zephane/wire/ProtocolError.h"

#include <algorithm>
#include <asio/experimental/awaitable_operators.hpp>
#include <asio/redirect_error.hpp>
#include <asio/use_awaitable.hpp>
#include <asio/write.hpp>
#include <utility>

namespace zephane {

Relay::Relay(ByteStream& remote, Filters filters, asio::local::stream_protocol::socket localSocket,
             Handler handler, std::chrono::milliseconds patience)
    : remote(remote),
      reading(std::move(filters.reading)),
      writing(std::move(filters.writing)),
      local(std::move(localSocket)),
      handler(std::move(handler)),
      patience(patience),
      changed(local.get_executor(), Clock::time_point::max()),
      watchdog(local.get_executor()) {}

asio::awaitable<void> Relay::run() {
    using asio::experimental::awaitable_operators::operator&&;
    co_await (guard(localToRemote()) && guard(remoteToLocal()) && guard(sendPendingFrames()) &&
              guard(watch()));
    if (failure) {
        std::rethrow_exception(failure);
    }
}

/// The first part that ends stops the others; their failures are only a consequence, so they are ignored.
asio::awaitable<void> Relay::guard(asio::awaitable<void> part) {
    try {
        co_await std::move(part);
    } catch (...) {
        if (!isStopped) {
            failure = std::current_exception();
        }
    }
    stop();
}

// NOLINTNEXTLINE(bugprone-exception-escape): of timers that nobody else uses, cancelling can't fail
void Relay::stop() noexcept {
    if (isStopped) {
        return;
    }
    isStopped = true;
    remote.close();
    asio::error_code ignored; // it is closed either way
    (void)local.close(ignored);
    watchdog.cancel();
    changed.cancel();
}

asio::awaitable<void> Relay::localToRemote() {
    std::vector<std::uint8_t> frame(wire::frameHeadBytes + wire::frameBytes);
    const auto payload = asio::buffer(frame) + wire::frameHeadBytes;
    for (;;) {
        asio::error_code error;
        const std::size_t count =
            co_await local.async_read_some(payload, asio::redirect_error(asio::use_awaitable, error));
        if (error == asio::error::eof) {
            co_return;
        }
        if (error) {
            throw asio::system_error(error);
        }
        std::ranges::copy(wire::frameHead(wire::FrameKind::nbd, count), frame.begin());
        co_await writeRemote(std::span(frame).first(wire::frameHeadBytes + count));
    }
}

asio::awaitable<void> Relay::remoteToLocal() {
    std::vector<std::uint8_t> buffer(wire::frameBytes);
    for (;;) {
        const std::size_t count = co_await remote.readSome(asio::buffer(buffer));
        if (count == 0) {
            remoteEnded = true;
            co_return;
        }
        reading.feed(std::span(buffer).first(count));
        for (auto piece = reading.next(); !piece.empty(); piece = reading.next()) {
            co_await dispatch(piece);
        }
    }
}

asio::awaitable<void> Relay::dispatch(std::span<const std::uint8_t> bytes) {
    while (const auto piece = frames.next(bytes)) {
        if (piece->kind == wire::FrameKind::nbd) {
            co_await writeLocal(piece->payload);
        } else {
            handler(piece->kind, piece->payload);
        }
    }
}

asio::awaitable<void> Relay::writeLocal(std::span<const std::uint8_t> bytes) {
    localLimit = Clock::now() + patience;
    co_await asio::async_write(local, asio::buffer(bytes.data(), bytes.size()), asio::use_awaitable);
    localLimit = Clock::time_point::max();
}

asio::awaitable<void> Relay::writeRemote(std::span<const std::uint8_t> frame) {
    co_await waitUntil(&Relay::isFree);
    isSending = true;
    writing.feed(frame);
    for (auto piece = writing.next(); !piece.empty(); piece = writing.next()) {
        remoteLimit = Clock::now() + patience;
        co_await remote.write(asio::buffer(piece.data(), piece.size()));
        remoteLimit = Clock::time_point::max();
    }
    isSending = false;
    changed.cancel();
}

void Relay::send(wire::FrameKind kind, std::span<const std::uint8_t> payload) {
    if (pendingFrame) {
        throw wire::ProtocolError("more is asked for than is taken");
    }
    std::vector<std::uint8_t> frame(wire::frameHeadBytes + payload.size());
    const auto body = std::ranges::copy(wire::frameHead(kind, payload.size()), frame.begin()).out;
    std::ranges::copy(payload, body);
    pendingFrame = std::move(frame);
    changed.cancel();
}

asio::awaitable<void> Relay::sendPendingFrames() {
    for (;;) {
        co_await waitUntil(&Relay::hasPendingFrame);
        const std::vector<std::uint8_t> frame = std::move(*pendingFrame);
        pendingFrame.reset();
        co_await writeRemote(frame);
    }
}

asio::awaitable<void> Relay::waitUntil(bool (Relay::*condition)() const) {
    while (!isStopped && !(this->*condition)()) {
        asio::error_code changeOfState; // the timer ends only when it is cancelled
        co_await changed.async_wait(asio::redirect_error(asio::use_awaitable, changeOfState));
    }
    if (isStopped) {
        throw asio::system_error(asio::error::operation_aborted);
    }
}

/// A deadline is `patience` away when it is set, so checking once in that time misses none.
asio::awaitable<void> Relay::watch() {
    while (!isStopped) {
        const auto now = Clock::now();
        const auto limit = std::min(remoteLimit, localLimit);
        if (limit <= now) {
            throw asio::system_error(asio::error::timed_out);
        }
        watchdog.expires_at(std::min(limit, now + patience));
        asio::error_code endOrStop;
        co_await watchdog.async_wait(asio::redirect_error(asio::use_awaitable, endOrStop));
    }
}

} // namespace zephane
