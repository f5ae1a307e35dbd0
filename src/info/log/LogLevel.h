#pragma once

/// Severity levels. They are plain integers, because a threshold may lie one step outside the levels of
/// messages, and because the device API sends a number for it.
namespace agent::info::level {

inline constexpr int min = -1; ///< As a threshold: nothing passes.
inline constexpr int critical = 0;
inline constexpr int error = 1;
inline constexpr int warning = 2;
inline constexpr int info = 3;
inline constexpr int debug = 4;
inline constexpr int max = 5; ///< As a threshold: everything passes.

} // namespace agent::info::level
