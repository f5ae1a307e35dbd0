#pragma once

#include <string>

namespace agent::core::script {

/// Looks for somebody other than root who could decide what a file holds: who owns, or may write, the file
/// itself, a directory on the way to it, or a directory on the way to where a link leads. A directory that
/// everybody may write counts, whether or not it keeps people from each other's files.
///
/// Returns what is open to others, and how; an empty text if nothing is, or if there is no such file.
std::string findForeignWriter(const std::string& path);

} // namespace agent::core::script
