#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace bekctl {

/// Reads a whole file that should be small, such as one of /proc. Returns nothing, with `errno` set, if it
/// can't be read or is larger than `most` bytes. Never blocks, whatever kind of file the path names.
std::optional<std::string> readFile(const std::string& path, std::size_t most);

} // namespace bekctl
