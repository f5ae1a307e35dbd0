#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace bekctl {

/// The process that holds an flock on a file, according to /proc/locks. Doesn't try to lock the file itself,
/// so no other process can fail to get the lock. Returns nothing if there is no such file or lock.
std::optional<pid_t> lockHolder(const std::string& path);

/// The same for a text in the format of /proc/locks. `file` is "major:minor:inode" as in that text.
std::optional<pid_t> findLockHolder(const std::string& locks, const std::string& file);

} // namespace bekctl
