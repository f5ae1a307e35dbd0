#pragma once

/// Severity levels. Plain integers, because thresholds travel through the database and the device API as
/// such and may lie one step outside what a statement can carry.
namespace agent::info::level {

inline constexpr int min = -1; ///< As a threshold: nothing passes.
inline constexpr int critical = 0;
inline constexpr int error = 1;
inline constexpr int warning = 2;
inline constexpr int info = 3;
inline constexpr int debug = 4;
inline constexpr int max = 5; ///< As a threshold: everything passes.

} // namespace agent::info::level
