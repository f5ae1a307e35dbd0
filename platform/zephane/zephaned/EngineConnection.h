#pragma once

#include "zephane/zephaned/IEngine.h"

#include <asio/awaitable.hpp>
#include <asio/local/stream_protocol.hpp>
#include <chrono>

namespace zephane {

/// Connects to an engine as soon as it accepts connections, on the executor of the coroutine. Throws Refusal
/// with EIO if the engine ends first, or accepts none before `deadline`.
asio::awaitable<asio::local::stream_protocol::socket>
connectTo(const IEngine& engine, std::chrono::steady_clock::time_point deadline);

/// A short pause before the next attempt.
asio::awaitable<void> pauseShortly();

} // namespace zephane
