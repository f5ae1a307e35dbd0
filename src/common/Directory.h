#pragma once

#include <string>
#include <vector>

/// Operations on directories. They throw PosixError if a system call fails.
namespace agent::dir {

/// Creates `path` with all missing parents. It is no error if the directory exists already.
/// Throws std::invalid_argument for an empty path.
void make(const std::string& path);

/// The names in `path`, without "." and "..", in the order in which the file system gives them.
std::vector<std::string> list(const std::string& path);

/// Removes a directory and everything in it, depth first. Removes symbolic links and never follows them, even
/// one that somebody creates while the removal runs.
void remove(const std::string& path);

} // namespace agent::dir
