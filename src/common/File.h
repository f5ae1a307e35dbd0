#pragma once

#include <string>
#include <string_view>
#include <sys/stat.h>

/// Operations on single files. Each throws PosixError with the value of `errno` at the moment of failure.
namespace agent::file {

/// True if anything stands at `path`; a dangling symbolic link counts.
bool exists(const std::string& path);

/// Removes a file or an empty directory.
void remove(const std::string& path);

/// Copies the bytes and the permission bits of a regular file. Never overwrites: an existing `to` is an
/// error. A copy that fails half-way leaves no `to` behind.
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

/// Makes what was written to a file, or the names in a directory, survive a power cut. A file system that
/// can't do so is no reason to fail.
void sync(const std::string& path);

/// Replaces the file at `path` by one that holds `content`, so that at any moment, also across a power cut,
/// either the old file or the new one is whole: temporary file beside it, sync, rename, sync of the folder.
/// On failure the temporary file is removed and the old file stays.
void replace(const std::string& path, std::string_view content, mode_t mode);

} // namespace agent::file
