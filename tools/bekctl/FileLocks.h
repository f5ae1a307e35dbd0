#pragma once

#include <optional>
#include <string>
#include <sys/types.h>

namespace bekctl {

/// The process that holds an flock on a file, by what the kernel tells of all locks. Nobody who wants the
/// lock meets one of ours: it is only looked at. Nothing if there is no such file, or no such lock.
std::optional<pid_t> lockHolder(const std::string& path);

/// The same in a text like that of /proc/locks. `file` is "major:minor:inode" as it stands there.
std::optional<pid_t> findLockHolder(const std::string& locks, const std::string& file);

} // namespace bekctl
