#pragma once

#include "Extents.h"
#include "os/FileDescriptor.h"

#include <string>
#include <vector>

namespace tolvubd::dm {

inline constexpr std::size_t mostPieces = 256;

/// Makes a file all of whose space is reserved, on disk, and which nobody can change, move or remove until
/// releaseFile; a file of that name must not be there. Returns where it lies on its volume, in the order of
/// the file and in whole 4096 bytes.
///
/// Fails: ENOSPC; EOPNOTSUPP when the file system can't reserve it, can't lock it, doesn't tell where it
///        lies, or has put it into more than `mostPieces` pieces, on another device, shared, encrypted or
///        compressed. The file is gone then.
std::vector<Extent> makeLockedFile(const std::string& path, std::uint64_t size);
/// Where a file lies, and nothing in it that is elsewhere; fails as above.
std::vector<Extent> placesOf(const std::string& path);
/// Locks a file that is there, so that it can't be changed, moved or removed.
void lockFile(const std::string& path);
/// Whether there is a file that is locked.
bool isLockedFile(const std::string& path);
/// Lets the file be changed and removed again; one that isn't there is fine.
void releaseFile(const std::string& path);
/// The part of a file that begins at `skip` and has `length` bytes; EINVAL when it isn't all there.
std::vector<Extent> partOf(const std::vector<Extent>& places, std::uint64_t skip, std::uint64_t length);

} // namespace tolvubd::dm
