#pragma once

#include <map>
#include <string>

namespace restore::view {

/// The extended attributes of a file in an open directory, ACLs among them; those of a symbolic link itself.
/// Empty if the file system has none. Throws std::runtime_error if they can't be read.
std::map<std::string, std::string> attributesOf(int directory, const std::string& name);

/// Copies owner, mode, times and extended attributes of the open directory `from` to the directory `to`.
/// Throws std::runtime_error.
void copyAttributes(int from, const std::string& to);

} // namespace restore::view
