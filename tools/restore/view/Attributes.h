#pragma once

#include <map>
#include <string>

namespace restore::view {

/// The extended attributes of a file in a directory that is open, those of a link itself; ACLs are among
/// them. Throws std::runtime_error if they can't be read; there are none where the file system has none.
std::map<std::string, std::string> attributesOf(int directory, const std::string& name);

/// Gives a directory the owner, mode, times and extended attributes of another one, which is open. Throws
/// std::runtime_error.
void giveAttributes(int from, const std::string& to);

} // namespace restore::view
