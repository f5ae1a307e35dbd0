#pragma once

#include "Extents.h"
#include "os/FileDescriptor.h"

#include <string>
#include <vector>

namespace tolvubd::dm {

inline constexpr std::size_t mostPieces = 256;

/// Creates a file whose space is all reserved on disk, and which can't be changed, moved or removed until
/// unlockFile. Returns its extents on the volume, in file order; all numbers are multiples of 4096 bytes.
///
/// Fails: EEXIST when the path exists; ENOSPC; EOPNOTSUPP when the file system can't reserve the space, can't
///        lock the file, doesn't report its extents, or has placed it in more than `mostPieces` pieces, on
///        another device, shared, encrypted or compressed. No file is left then.
std::vector<Extent> makeLockedFile(const std::string& path, std::uint64_t size);
/// The extents of a file on its volume, up to the file's size. Fails like makeLockedFile.
std::vector<Extent> placesOf(const std::string& path);
/// Locks an existing file, so that it can't be changed, moved or removed.
void lockFile(const std::string& path);
/// Whether the file exists and is locked.
bool isLockedFile(const std::string& path);
/// Unlocks the file, so that it can be changed and removed; does nothing when it doesn't exist.
void unlockFile(const std::string& path);
/// The part of a file that begins at `skip` and has `length` bytes. Throws EINVAL when the file ends earlier.
std::vector<Extent> partOf(const std::vector<Extent>& places, std::uint64_t skip, std::uint64_t length);

} // namespace tolvubd::dm
