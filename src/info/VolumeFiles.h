#pragma once

/// The files that the driver and the agent keep at the root of a volume; docs/formats/cow.md describes them.
namespace agent::info::volume_files {

/// The two CoW files take turns.
inline constexpr const char* firstCow = ".tolvu";
inline constexpr const char* secondCow = ".tolvu1";
/// What earlier backups still owe.
inline constexpr const char* history = ".tolvu.inc";

} // namespace agent::info::volume_files
