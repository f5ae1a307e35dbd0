#pragma once

#include <string>
#include <vector>

/// Operations on directories. System call failures are PosixError.
namespace agent::dir {

/// Creates `path` with all missing parents. A directory that is there already is no error.
/// Throws std::invalid_argument for an empty path.
void make(const std::string& path);

/// The names in `path`, without "." and "..", in the order in which the file system gives them.
std::vector<std::string> list(const std::string& path);

/// Removes a directory with all that it holds, depth first. Symbolic links are removed, never followed, also
/// when one is slipped in while the removal runs.
void remove(const std::string& path);

} // namespace agent::dir
