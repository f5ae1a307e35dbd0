#pragma once

#include <string>
#include <string_view>
#include <sys/stat.h>

/// Operations on single files. Each throws PosixError with the value of `errno` at the moment of failure.
namespace agent::file {

/// True if anything exists at `path`; a dangling symbolic link counts.
bool exists(const std::string& path);

/// Removes a file or an empty directory.
void remove(const std::string& path);

/// Copies the bytes and the permission bits of a regular file. Never overwrites: an existing `to` is an
/// error. If copying fails half-way, removes `to` again.
void copy(const std::string& from, const std::string& to);

/// Replaces `to` if it exists.
void rename(const std::string& from, const std::string& to);

/// Makes `link` a symbolic link to `source`, which must not be a directory.
void symlink(const std::string& source, const std::string& link);

/// Makes `link` a second name of `source`.
void link(const std::string& source, const std::string& link);

struct ::stat status(const std::string& path);
struct ::stat linkStatus(const std::string& path);
struct ::stat64 status64(const std::string& path);

/// Calls fsync, so that the content of a file or the names in a directory survive a power failure. Ignores
/// errors, because not every file system supports it.
void sync(const std::string& path);

/// Replaces the file at `path` atomically with one that contains `content`: at any moment, even after a power
/// failure, either the old file or the new one is complete. Writes and syncs a temporary file in the same
/// directory, renames it, and syncs the directory. On failure removes the temporary file.
void replace(const std::string& path, std::string_view content, mode_t mode);

} // namespace agent::file
