#pragma once

#include "IBackEnd.h"

#include <cstdint>
#include <string>

namespace tolvubd {

/// The offset of the store of preserved blocks in a CoW file, in bytes. The header and the table come before
/// it.
std::uint64_t storeOffset(std::uint64_t volumeSize);
/// The size of `.tolvu.era` for a volume, in bytes: the seal and the metadata of the era target.
std::uint64_t eraFileSize(std::uint64_t volumeSize, std::uint32_t blockSectors);
std::string eraFileOn(const PathOnVolume& cow);

/// Creates the CoW file of a snapshot, locks it, and records the extents of its store of preserved blocks.
/// Throws EOPNOTSUPP when the file system doesn't support that.
void makeCowStore(const SnapshotPlan& plan, Device& device);
/// Creates `.tolvu.era` and records its extents. An existing one is replaced, so it must not be in use.
/// Throws EOPNOTSUPP as above.
void makeEraFile(const SnapshotPlan& plan, Device& device);
/// Removes a CoW file, locked or not, if it belongs to the snapshot.
void removeLockedCowFile(const std::string& path, const std::string& snapshot);
/// Removes the file at `path`, locked or not.
void removeLockedFile(const std::string& path);
/// Whether there is a CoW file at `path`, of any snapshot.
bool isCowFile(const std::string& path);
/// Whether an ended tracking has left files on the volume: `.tolvu.era`, or a CoW file at the path of the new
/// one.
bool hasStaleFiles(const PathOnVolume& cow);
/// Removes the files that an ended tracking has left on a volume without layers, because these files, and the
/// space that they use, would be in the way of new ones.
void removeStaleFiles(const PathOnVolume& cow);
/// The same for a volume that gets no layers. Keeps the CoW file, but unlocks it, because the new one
/// replaces it.
void unlockStaleFiles(const PathOnVolume& cow);

} // namespace tolvubd
