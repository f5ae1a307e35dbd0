#pragma once

/// The files that the driver and the agent keep in the root directory of a volume; docs/formats/cow.md
/// describes them.
namespace agent::info::volume_files {

/// The driver uses the two CoW files alternately.
inline constexpr const char* firstCow = ".tolvu";
inline constexpr const char* secondCow = ".tolvu1";
/// The incremental history: the blocks that earlier backups should have transferred but didn't.
inline constexpr const char* history = ".tolvu.inc";

} // namespace agent::info::volume_files
