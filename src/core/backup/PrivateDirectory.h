#pragma once

#include <string>

/// A directory of root's own in a place where everybody may put things, such as /tmp.
///
/// Whoever may write to a directory decides where its entries lead: a mount below it could be made to cover
/// /etc, and an unmount to uncover /home. So only a directory that nobody but root can fill is used. Inside a
/// sticky parent, which /tmp is, such a directory can't be moved away by others either.
namespace agent::core::backup::private_directory {

/// True for a real directory (no link to one) that belongs to root and that only root may write to.
bool isPrivate(const std::string& path);

/// Makes the directory, readable for root only, with its parents. Anything else that stands at `path`, unless
/// it is private already, is renamed: what it holds is somebody's, and may stay. Returns the new name of what
/// was renamed, empty if there was nothing. Throws PosixError.
std::string make(const std::string& path);

} // namespace agent::core::backup::private_directory
