#pragma once

#include "zephane/zephaned/IBackEnd.h"

#include <asio/awaitable.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>

namespace zephane {

/// Connects to a back end as soon as it takes connections, on the executor of the coroutine. Refusal with EIO
/// if it has ended before, or doesn't take them until `deadline`.
asio::awaitable<asio::local::stream_protocol::socket>
connectTo(const IBackEnd& backEnd, std::chrono::steady_clock::time_point deadline);

/// For what is tried again until it is there.
asio::awaitable<void> pauseShortly();

} // namespace zephane
