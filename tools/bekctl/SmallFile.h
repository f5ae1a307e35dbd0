#pragma once

#include <cstddef>
#include <optional>
#include <string>

namespace bekctl {

/// All of a file that is expected to be small, such as one of /proc; nothing, with `errno` set, if it can't
/// be read or is larger than `most` bytes. Nothing that may stand there in its place holds the caller up.
std::optional<std::string> readFile(const std::string& path, std::size_t most);

} // namespace bekctl
