#pragma once

#include "IBackEnd.h"

#include <cstdint>
#include <string>

namespace tolvubd {

/// Bytes of a CoW file in front of what takes preserved blocks: its header and its table.
std::uint64_t storeOffset(std::uint64_t volumeSize);
/// Bytes of `.tolvu.era` for a volume: the seal, and the metadata of the era target.
std::uint64_t eraFileSize(std::uint64_t volumeSize, std::uint32_t blockSectors);
std::string eraFileOn(const PathOnVolume& cow);

/// Makes the CoW file of a snapshot, locks it, and notes where the part lies that takes preserved blocks.
/// EOPNOTSUPP where that can't be done with it.
void makeCowStore(const SnapshotPlan& plan, Device& device);
/// Makes `.tolvu.era`, of which none may be in use, and notes where it lies. EOPNOTSUPP as above.
void makeEraFile(const SnapshotPlan& plan, Device& device);
/// Removes a CoW file that may be locked, if it is that of the snapshot.
void removeLockedCowFile(const std::string& path, const std::string& snapshot);
/// Removes the file at `path`, locked or not.
void removeLockedFile(const std::string& path);
/// Whether a CoW file stands there, of whichever snapshot.
bool isCowFile(const std::string& path);
/// Whether a tracking that is no more has left files on a volume where a new CoW file is to be.
bool hasLeftOvers(const PathOnVolume& cow);
/// Removes what a tracking that is no more has left on a volume without layers: they would be in the way of
/// new ones, and so would be the room that they take.
void removeLeftOvers(const PathOnVolume& cow);
/// The same for a volume that will have no layers, whose new CoW file replaces the one that is there.
void releaseLeftOvers(const PathOnVolume& cow);

} // namespace tolvubd
