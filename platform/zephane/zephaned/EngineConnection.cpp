#include "zephane/zephaned/EngineConnection.h"

#include "zephane/zephaned/Refusal.h"

#include <asio/redirect_error.hpp>
#include <asio/steady_timer.hpp>
#include <asio/this_coro.hpp>
#include <asio/use_awaitable.hpp>
#include <cerrno>

namespace zephane {

using asio::local::stream_protocol;

asio::awaitable<stream_protocol::socket> connectTo(const IEngine& engine,
                                                   std::chrono::steady_clock::time_point deadline) {
    while (!engine.hasEnded() && std::chrono::steady_clock::now() < deadline) {
        stream_protocol::socket socket(co_await asio::this_coro::executor);
        asio::error_code error;
        co_await socket.async_connect(engine.socket(), asio::redirect_error(asio::use_awaitable, error));
        if (!error) {
            co_return socket;
        }
        co_await pauseShortly();
    }
    throw Refusal(-EIO, "the image's engine doesn't come up; the server's log says why");
}

asio::awaitable<void> pauseShortly() {
    asio::steady_timer timer(co_await asio::this_coro::executor, std::chrono::milliseconds(10));
    co_await timer.async_wait(asio::use_awaitable);
}

} // namespace zephane
