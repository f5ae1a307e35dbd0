#include "mapper/OwnFiles.h"

#include "CowFile.h"
#include "Failure.h"
#include "FileAccess.h"
#include "Layout.h"
#include "dm/FilePlaces.h"
#include "era/EraMetadata.h"
#include "mapper/Targets.h"
#include "seal/Seal.h"

#include <filesystem>
#include <optional>
#include <system_error>
#include <unistd.h>

namespace tolvubd {

namespace {

/// The snapshot UUID of a CoW file; none if there is no CoW file at `path`.
std::optional<std::string> snapshotIn(const std::string& path) {
    try {
        return snapshotOf(path);
    } catch (const std::system_error&) {
        return std::nullopt;
    }
}

bool isThere(const std::string& path) {
    return ::access(path.c_str(), F_OK) == 0 || errno != ENOENT;
}

} // namespace

std::uint64_t storeOffset(std::uint64_t volumeSize) {
    return cow::unitsOf(cow::tableEnd(volumeSize)) * cow::unitSize;
}

std::uint64_t eraFileSize(std::uint64_t volumeSize, std::uint32_t blockSectors) {
    const std::uint64_t block = blockSectors * dm::sector;
    return sealSize + eraMetadataSize((volumeSize + block - 1) / block);
}

std::string eraFileOn(const PathOnVolume& cow) {
    return PathOnVolume{cow.mountPoint, std::string("/") + layout::eraFile}.path();
}

void makeCowStore(const SnapshotPlan& plan, Device& device) {
    const std::string path = plan.cow.path();
    const std::uint64_t skip = storeOffset(plan.volume.size);
    if (plan.cowSize <= skip) {
        fail(EINVAL, "the CoW file has no room behind its table for " + plan.volume.path);
    }
    makeCowFile(path, device.snapshot, plan.cowSize);
    dm::lockFile(path);
    const std::uint64_t length = (plan.cowSize - skip) / cow::unitSize * cow::unitSize;
    device.layers->cowStore = dm::partOf(dm::placesOf(path), skip, length);
}

void makeEraFile(const SnapshotPlan& plan, Device& device) {
    const std::string path = eraFileOn(plan.cow);
    removeLockedFile(path);
    device.layers->eraFile =
        dm::makeLockedFile(path, eraFileSize(plan.volume.size, device.layers->blockSectors));
}

void removeLockedCowFile(const std::string& path, const std::string& snapshot) {
    if (snapshotIn(path) == snapshot) {
        dm::unlockFile(path);
    }
    removeCowFile(path, snapshot);
}

void removeLockedFile(const std::string& path) {
    if (!isThere(path)) {
        return; // removing would wait while the volume is frozen, even if there is no file
    }
    dm::unlockFile(path);
    removeFile(path);
}

bool isCowFile(const std::string& path) {
    return snapshotIn(path).has_value();
}

bool hasStaleFiles(const PathOnVolume& cow) {
    return isThere(eraFileOn(cow)) || isCowFile(cow.path());
}

void removeStaleFiles(const PathOnVolume& cow) {
    removeLockedFile(eraFileOn(cow));
    if (isCowFile(cow.path())) {
        removeLockedFile(cow.path());
    }
}

void unlockStaleFiles(const PathOnVolume& cow) {
    removeLockedFile(eraFileOn(cow));
    if (isCowFile(cow.path())) {
        dm::unlockFile(cow.path());
    }
}

} // namespace tolvubd
