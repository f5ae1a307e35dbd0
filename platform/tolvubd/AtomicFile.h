#pragma once

#include <string>

namespace tolvubd {

/// The suffix of the file that holds the next version while it is written.
inline constexpr const char* unfinishedSuffix = ".new";

/// Replaces the file as a whole: a reader sees either the old text or the new one. When this throws, the file
/// is unchanged. For files that needn't survive a restart of the machine.
void replaceFileWithoutSync(const std::string& path, const std::string& text, unsigned mode);

/// Replaces the file as a whole, durably: after a crash it holds either the old text or the new one. When
/// this throws, the file is unchanged. The previous version stays beside it, with `unfinishedSuffix`.
void replaceFileDurably(const std::string& path, const std::string& text, unsigned mode);
/// Swaps the file and its previous version back, for when a step that must follow the write has failed.
void restorePreviousFile(const std::string& path);

/// Reads a file of at most `limit` bytes; a longer one fails with EFBIG.
std::string readFile(const std::string& path, std::size_t limit);

std::string directoryOf(const std::string& path);

} // namespace tolvubd
