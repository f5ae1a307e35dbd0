#pragma once

namespace agent::core {

/// How often a transport tries an operation that may succeed a moment later.
inline constexpr int maxTries = 5;

/// Sleeps for a second, even if signals interrupt the sleep.
void sleepBeforeRetry();

} // namespace agent::core
