#pragma once

#include <string>

namespace tolvubd {

/// What stands beside a file while its next version is written.
inline constexpr const char* unfinishedSuffix = ".new";

/// Replaces the file as a whole: a reader finds the old text or the new one. It is as it was when this
/// throws. For files that needn't survive a restart of the machine.
void showFile(const std::string& path, const std::string& text, unsigned mode);

/// Replaces the file as a whole, durably: whoever comes after a crash finds the old text or the new one. It
/// is as it was when this throws. The file that it was stays beside it under the suffix above.
void replaceFile(const std::string& path, const std::string& text, unsigned mode);
/// Lets the two change places again: for when what belongs to the new text can't be had.
void takeBackFile(const std::string& path);

/// Reads a file of at most `limit` bytes; a longer one fails with EFBIG.
std::string readFile(const std::string& path, std::size_t limit);

/// The directory that holds the path's last part.
std::string directoryOf(const std::string& path);

} // namespace tolvubd
