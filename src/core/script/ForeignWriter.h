#pragma once

#include <string>

namespace agent::core::script {

/// Checks whether users other than root could decide the content of a file: whether they own, or may write
/// to, the file itself, a directory on its path, or a directory on the path of a link's target. A directory
/// that everybody may write to counts even if it is sticky.
///
/// Returns the first of these paths that others can write to, with its owner and mode. Returns an empty text
/// if there is none, or if the file doesn't exist.
std::string findForeignWriter(const std::string& path);

} // namespace agent::core::script
