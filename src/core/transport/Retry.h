#pragma once

namespace agent::core {

/// How often a transport connects, or bek-restore reads, before it gives up: the error may pass in a moment.
inline constexpr int maxTries = 5;

/// Sleeps for a second, even if signals interrupt the sleep.
void sleepBeforeRetry();

} // namespace agent::core
