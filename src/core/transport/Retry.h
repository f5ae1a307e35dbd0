#pragma once

namespace agent::core {

/// How often a transport tries what may go well a moment later.
inline constexpr int maxTries = 5;

/// Waits for a second, however many signals come.
void sleepBeforeRetry();

} // namespace agent::core
