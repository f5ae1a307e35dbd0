#pragma once

#include <string>

/// A directory for root only, inside a directory that everybody may write to, such as /tmp.
///
/// Anybody who may write to a directory decides where its entries lead: they could redirect a mount below it
/// so that it covers /etc, or an unmount so that it uncovers /home. So the agent uses only a directory that
/// only root can write to. If the parent is sticky, as /tmp is, other users can't move the directory away
/// either.
namespace agent::core::backup::private_directory {

/// True for a directory (not a symbolic link to one) that belongs to root and that only root may write to.
bool isPrivate(const std::string& path);

/// Creates the directory with mode 0700, and its parents. If `path` exists and isn't private, it is renamed
/// rather than deleted, because its content may be somebody's data. Returns the new name of the renamed
/// entry, or an empty string. Throws PosixError.
std::string make(const std::string& path);

} // namespace agent::core::backup::private_directory
