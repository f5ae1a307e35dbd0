#include "core/backup/SnapshotSessionControl.h"

#include "common/Directory.h"
#include "common/File.h"
#include "common/PosixError.h"
#include "core/backup/IBackupAttributes.h"
#include "core/backup/MountContext.h"
#include "core/backup/PrivateDirectory.h"
#include "core/backup/SnapshotFiles.h"
#include "info/BackupableVolume.h"
#include "info/CowFile.h"
#include "info/CowFileSize.h"
#include "info/CowFormat.h"
#include "info/DriverController.h"
#include "info/DriverExtension.h"
#include "info/HumanSize.h"
#include "info/ICowFileSize.h"
#include "info/TolvubdController.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <stdexcept>
#include <unistd.h>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace agent::core::backup {

namespace {

using info::BackupableVolume;
using info::DriverDeviceInfo;
using info::LogEntry;
using info::Logger;
using info::reason;
using info::Reason;
using info::WithReason;
using info::driver_state::activeSnapshot;
using info::driver_state::tracking;
using info::level::debug;
using info::level::error;
using info::level::warning;

using IncrementalStates = std::unordered_map<std::string, bool>;

/// Which changes are in the change record that the driver closed when it took the snapshot.
enum class ClosedRecord {
    sinceLastSnapshot, ///< without older changes that failed backups haven't sent
    allUnsentChanges,  ///< all changes that the image lacks
};

constexpr std::uint64_t bytesPerMiB = 1048576;

/// The space that a snapshot needs and has on a volume, in bytes.
struct SnapshotSpace {
    std::uint64_t cowFile = 0;     ///< the configured size of a CoW file, for the copied blocks
    std::uint64_t table = 0;       ///< the block table, which each CoW file has in addition
    std::uint64_t driverFiles = 0; ///< the driver's other files, which all snapshots share
    std::uint64_t available = 0;

    [[nodiscard]] std::uint64_t required() const { return cowFile + table + driverFiles; }
};

/// Logs `logged` and throws `thrown`.
[[noreturn]] void fail(Logger& logger, const Reason& reason, const std::string& logged,
                       const std::string& thrown) {
    LogEntry(logger, error, reason) << logged;
    throw info::WithReason<std::runtime_error>(reason, thrown);
}

/// A journal can't be replayed on a read-only snapshot, and XFS refuses to mount a UUID that is already
/// mounted.
std::string mountOptions(const std::string& fileSystem) {
    if (fileSystem == "xfs") {
        return "nouuid,norecovery";
    }
    return fileSystem == "ext3" || fileSystem == "ext4" ? "norecovery" : "";
}

/// The UUID of some file systems can be any text; as a directory name it must not lead out of the mount root.
bool isEntryName(const std::string& name) {
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos;
}

/// `changed` is read from a CoW file on the volume, so it may be wrong and exceed `blocks`.
std::uint64_t unchangedBlocks(std::uint64_t blocks, std::uint64_t changed) {
    return changed < blocks ? blocks - changed : 0;
}

} // namespace

class SnapshotSessionControl::Impl {
public:
    Impl(Logger& logger, info::ICowFileSize& cowFileSize, std::unique_ptr<info::IDriverController> driver,
         std::shared_ptr<const info::IDriverExtension> extension)
        : logger(logger),
          cowFileSize(cowFileSize),
          driver(std::move(driver)),
          extension(std::move(extension)) {}

    VolumeSnapshotInfos startSnapshots(const Volumes& volumes, const IBackupAttributes& attributes);
    VolumeSnapshotInfos transitionToIncremental(const Volumes& volumes, bool success);

private:
    void validateDriver();
    void validateVolume(const BackupableVolume& volume, const IBackupAttributes& attributes);
    bool hasEnoughFreeSpace(const BackupableVolume& volume);
    std::uint64_t driverSpace(const BackupableVolume& volume);
    void warnOfSecondCowFile(const BackupableVolume& volume);
    bool hasSnapshotFiles(const BackupableVolume& volume);
    void checkIncrementalState(const Volumes& volumes, const IBackupAttributes& attributes,
                               IncrementalStates& states);
    void startSnapshot(const BackupableVolume& volume, bool& hasChangeRecord);
    void mergeHistory(const BackupableVolume& volume);
    bool isTracked(const BackupableVolume& volume);
    bool mountSnapshot(const BackupableVolume& volume, const std::string& snapshotPath);
    int tryToMount(const BackupableVolume& volume, const std::string& snapshotPath, const Path& target);
    void unmountAll();
    void unmount(const std::string& path);
    void saveChangesOrDestroySnapshot(const BackupableVolume& volume);
    bool saveUnsentChanges(const BackupableVolume& volume);
    void destroyUntrustedSnapshot(const BackupableVolume& volume);
    void endSnapshot(const BackupableVolume& volume, IncrementalStates& states);
    void removeOldCowFiles(const Volumes& volumes);
    [[nodiscard]] std::vector<std::string> getSnapshotFiles(const BackupableVolume& volume) const;
    DriverDeviceInfo deviceOf(const BackupableVolume& volume);
    block::IncrementalBitmapInfo getIncrementalBitmapInfo(const BackupableVolume& volume,
                                                          const DriverDeviceInfo& device);
    VolumeSnapshotInfos buildSnapshotInfo(const Volumes& volumes, IncrementalStates& states);

    Logger& logger;
    info::ICowFileSize& cowFileSize;
    std::unique_ptr<info::IDriverController> driver;
    std::shared_ptr<const info::IDriverExtension> extension;
    std::once_flag validateOnce;
    std::unordered_map<std::string, SnapshotSpace>
        spaceByVolume; // by UUID, measured when the session was validated
    /// The kinds of this session's closed change records, by UUID. If a volume isn't in the map, this session
    /// doesn't know its debt: it didn't start the volume's snapshot, or the change record wasn't intact.
    std::unordered_map<std::string, ClosedRecord> closedRecords;
    /// The UUIDs of volumes whose snapshots could be neither trusted nor destroyed.
    std::unordered_set<std::string> untrustedSnapshots;
    const Path mountRoot = "/tmp/tolvuMountRoot";
};

VolumeSnapshotInfos SnapshotSessionControl::Impl::startSnapshots(const Volumes& volumes,
                                                                 const IBackupAttributes& attributes) {
    closedRecords.clear();
    std::call_once(validateOnce, [this] { validateDriver(); });
    LogEntry(logger, info::level::info) << "Validating snapshot session...";
    for (const auto& volume : volumes) {
        validateVolume(*volume, attributes);
    }
    IncrementalStates states;
    checkIncrementalState(volumes, attributes, states);
    LogEntry(logger, info::level::info) << "Snapshot session successfully validated";
    unmountAll();
    for (const auto& volume : volumes) {
        startSnapshot(*volume, states[volume->getUuid()]);
    }
    return buildSnapshotInfo(volumes, states);
}

void SnapshotSessionControl::Impl::validateDriver() {
    if (!driver->isDriverVersionSupported()) {
        fail(logger, reason("driver-unusable"), "Failed to validate driver!", "Failed to validate driver!");
    }
}

void SnapshotSessionControl::Impl::validateVolume(const BackupableVolume& volume,
                                                  const IBackupAttributes& attributes) {
    if (!hasEnoughFreeSpace(volume)) {
        fail(logger, reason("volume-full"),
             "Volume " + volume.getDisplayName() + " is full, not enough free space to perform a backup",
             "Cannot backup a full volume");
    }
    if (attributes.isIncremental(volume.getUuid()) && !hasSnapshotFiles(volume)) {
        fail(logger, reason("history-missing"),
             "Could not properly create snapshot files for volume " + volume.getDisplayName(),
             "Cannot create snapshot files");
    }
}

bool SnapshotSessionControl::Impl::hasEnoughFreeSpace(const BackupableVolume& volume) {
    const std::uint64_t cowMiB =
        cowFileSize.getCowFileSizeMiB(logger, volume.getUuid(), volume.getSize(), volume.getFileSystem());
    const SnapshotSpace space{cowMiB * bytesPerMiB,
                              info::cow::entrySize +
                                  info::cow::entrySize * (volume.getSize() / info::cow::blockSize),
                              driverSpace(volume), volume.getSpaceFree()};
    spaceByVolume[volume.getUuid()] = space;
    const std::uint64_t required = space.required();
    const std::uint64_t available = space.available;
    if (available >= required) {
        return true;
    }
    LogEntry(logger, error, reason("volume-full"))
        << "The required free space for volume " << volume.getUuid() << " is " << required << " bytes ("
        << info::formatHumanSize(required) << "), but only " << available << " bytes ("
        << info::formatHumanSize(available) << ") is available";
    return false;
}

/// The next backup creates a second CoW file while the first one still exists, so a volume that has enough
/// space for this backup may have too little for the next one. The warning gives the administrator time to
/// react.
void SnapshotSessionControl::Impl::warnOfSecondCowFile(const BackupableVolume& volume) {
    const SnapshotSpace& space = spaceByVolume[volume.getUuid()];
    const std::uint64_t left = space.available - std::min(space.available, space.required());
    const std::uint64_t tables = 2 * space.table; // the first backup's history file has a table, too
    const std::uint64_t needed = space.cowFile + tables;
    if (left >= needed) {
        return;
    }
    LogEntry line(logger, warning);
    line << "The next backup of volume " << volume.getDisplayName() << " will need "
         << info::formatHumanSize(needed) << " for a second CoW file, and this one leaves "
         << info::formatHumanSize(left) << ": free the rest";
    const std::uint64_t maxMiB = (left - std::min(left, tables)) / bytesPerMiB;
    if (maxMiB >= info::minCowFileMiB) {
        line << ", or set volumes." << volume.getUuid() << ".cowFileSizeMiB to " << maxMiB << " or less";
    }
}

/// Returns 0 if the driver can't determine it. If there is too little space, taking the snapshot fails later.
std::uint64_t SnapshotSessionControl::Impl::driverSpace(const BackupableVolume& volume) {
    try {
        return extension->getSnapshotSpace(volume.getDevice());
    } catch (const PosixError& failure) {
        LogEntry(logger, warning) << failure.what();
        return 0;
    }
}

/// False for a change record without a history: changes that earlier, failed backups didn't send may be lost.
bool SnapshotSessionControl::Impl::hasSnapshotFiles(const BackupableVolume& volume) {
    block::IncrementalBitmapInfo record;
    try {
        record = getIncrementalBitmapInfo(volume, deviceOf(volume));
    } catch (const std::runtime_error&) {
        return true; // there is nothing to check
    }
    return !file::exists(record.fileName) || driver->hasIncrementalHistory(volume);
}

void SnapshotSessionControl::Impl::checkIncrementalState(const Volumes& volumes,
                                                         const IBackupAttributes& attributes,
                                                         IncrementalStates& states) {
    for (const auto& volume : volumes) {
        if (!volume || !attributes.isIncremental(volume->getUuid())) {
            continue;
        }
        const std::string& uuid = volume->getUuid();
        DriverDeviceInfo device;
        if (!driver->getDeviceInfo(*volume, device)) {
            states[uuid] = false;
            LogEntry(logger, info::level::info, reason("not-tracked"))
                << "Found no incremental mode snapshot for volume " << uuid
                << ", falling back to diff merge.";
            continue;
        }
        states[uuid] = device.state == tracking && device.error == 0;
        if (!states[uuid]) {
            LogEntry(logger, warning, reason("tracking-lost"))
                << "Device " << uuid << " not in active incremental state, destroying snapshot";
            if (!driver->destroyDevice(*volume)) {
                throw WithReason<std::runtime_error>(reason("snapshot-not-destroyed"),
                                                     "Could not destroy snapshot for " + uuid);
            }
        }
    }
}

/// Sets `hasChangeRecord` to false if the device has stopped being tracked since the session was validated.
void SnapshotSessionControl::Impl::startSnapshot(const BackupableVolume& volume, bool& hasChangeRecord) {
    const bool wasTracked = isTracked(volume);
    if (!wasTracked) {
        warnOfSecondCowFile(volume);
    }
    hasChangeRecord = hasChangeRecord && wasTracked;
    if (!driver->startSnapshot(volume, cowFileSize)) {
        throw WithReason<std::runtime_error>(reason("snapshot-failed"), "Failed to start snapshot!");
    }
    if (wasTracked) {
        closedRecords[volume.getUuid()] = ClosedRecord::sinceLastSnapshot;
    }
    if (hasChangeRecord) {
        mergeHistory(volume);
    }
    std::string snapshotPath;
    if (driver->getSnapshotPath(volume, snapshotPath)) {
        mountSnapshot(volume, snapshotPath);
    }
}

/// An interrupted merge leaves an unreliable change record, so its entry in `closedRecords` is removed
/// meanwhile.
void SnapshotSessionControl::Impl::mergeHistory(const BackupableVolume& volume) {
    closedRecords.erase(volume.getUuid());
    if (!driver->rollForward(volume)) {
        throw WithReason<std::runtime_error>(reason("history-broken"), "Failed to roll forward!");
    }
    closedRecords[volume.getUuid()] = ClosedRecord::allUnsentChanges;
}

bool SnapshotSessionControl::Impl::isTracked(const BackupableVolume& volume) {
    DriverDeviceInfo device;
    return driver->getDeviceInfo(volume, device) && device.state == tracking && device.error == 0;
}

bool SnapshotSessionControl::Impl::mountSnapshot(const BackupableVolume& volume,
                                                 const std::string& snapshotPath) {
    const Path target = mountRoot / volume.getUuid();
    const std::string device = snapshotPath + " (" + volume.getDevice() + ")";
    const int failure = tryToMount(volume, snapshotPath, target);
    if (failure != 0) {
        LogEntry(logger, warning, reason("snapshot-not-mounted"))
            << "Failed to mount device " << device << ", errno: " << failure;
        return false;
    }
    LogEntry(logger, info::level::info) << "Mounted " << device << " onto " << target.str();
    return true;
}

/// Returns 0 or an errno value.
int SnapshotSessionControl::Impl::tryToMount(const BackupableVolume& volume, const std::string& snapshotPath,
                                             const Path& target) {
    if (!isEntryName(volume.getUuid())) {
        return EINVAL;
    }
    try {
        const std::string renamed = private_directory::make(mountRoot);
        if (!renamed.empty()) {
            LogEntry(logger, warning) << mountRoot.str() << " was not the agent's, it is now " << renamed;
        }
        dir::make(target);
    } catch (const PosixError& failure) {
        LogEntry(logger, warning) << failure.what();
        return failure.code();
    }
    MountContext context;
    return context.mountReadOnly(snapshotPath, target, mountOptions(volume.getFileSystem())) ? 0 : errno;
}

void SnapshotSessionControl::Impl::unmountAll() {
    if (!file::exists(mountRoot)) {
        return;
    }
    if (!private_directory::isPrivate(mountRoot)) {
        LogEntry(logger, warning) << mountRoot.str() << " is not the agent's, nothing in it is unmounted";
        return;
    }
    try {
        for (const std::string& name : dir::list(mountRoot)) {
            const std::string path = mountRoot / name;
            unmount(path);
            ::rmdir(path.c_str()); // fails harmlessly if the directory isn't empty or is still a mount point
        }
    } catch (const PosixError& failure) {
        LogEntry(logger, warning) << failure.what();
    }
}

void SnapshotSessionControl::Impl::unmount(const std::string& path) {
    MountContext context;
    if (!context.prepareUmount(path)) {
        const int failure = errno;
        LogEntry(logger, warning) << "Failed to prepare unmount " << path << "(errno: " << failure << ")";
    } else if (!context.umount()) {
        const int failure = errno;
        LogEntry(logger, warning) << "Failed to unmount " << path << "(errno: " << failure << ")";
    } else {
        LogEntry(logger, info::level::info) << "Unmounted  " << path;
    }
}

VolumeSnapshotInfos SnapshotSessionControl::Impl::transitionToIncremental(const Volumes& volumes,
                                                                          bool success) {
    unmountAll();
    untrustedSnapshots.clear();
    for (const auto& volume : volumes) {
        if (success) {
            driver->makeHistory(*volume, true);
        } else {
            saveChangesOrDestroySnapshot(*volume);
        }
    }
    IncrementalStates states;
    for (const auto& volume : volumes) {
        endSnapshot(*volume, states);
    }
    VolumeSnapshotInfos result = buildSnapshotInfo(volumes, states);
    removeOldCowFiles(volumes);
    return result;
}

void SnapshotSessionControl::Impl::saveChangesOrDestroySnapshot(const BackupableVolume& volume) {
    const bool isSaved = saveUnsentChanges(volume);
    const bool isReverted = driver->revertOnFailure(volume);
    if (!isReverted) {
        LogEntry(logger, error) << "Failed to revert device " << volume.getDevice();
    }
    if (!isSaved || !isReverted) {
        destroyUntrustedSnapshot(volume);
    }
}

/// Saves all changes that the image lacks as the volume's history, with which the next backup begins. If this
/// session has no change record, there is nothing to save: the existing history is either still correct or
/// useless.
bool SnapshotSessionControl::Impl::saveUnsentChanges(const BackupableVolume& volume) {
    const auto record = closedRecords.find(volume.getUuid());
    if (record == closedRecords.end()) {
        return false;
    }
    const bool isComplete = record->second == ClosedRecord::allUnsentChanges || driver->rollForward(volume);
    return isComplete && driver->makeHistory(volume, false);
}

/// If the debt of a snapshot isn't known, the next changes must not be tracked from it. Without a device the
/// next backup compares all blocks. A volume that is only tracked has lost no changes and stays tracked.
void SnapshotSessionControl::Impl::destroyUntrustedSnapshot(const BackupableVolume& volume) {
    DriverDeviceInfo device;
    if (driver->getDeviceInfo(volume, device)) {
        if (device.state != activeSnapshot) {
            return;
        }
        LogEntry(logger, warning, reason("debt-unknown"))
            << "What volume " << volume.getDisplayName()
            << " owes to its image is not known, destroying its snapshot";
        if (driver->destroyDevice(volume)) {
            return;
        }
        LogEntry(logger, error, reason("snapshot-not-destroyed"))
            << "Could not destroy snapshot for " << volume.getUuid();
    }
    untrustedSnapshots.insert(volume.getUuid());
}

void SnapshotSessionControl::Impl::endSnapshot(const BackupableVolume& volume, IncrementalStates& states) {
    if (untrustedSnapshots.contains(volume.getUuid()) || !driver->transitionToIncremental(volume)) {
        LogEntry(logger, error, reason("tracking-not-begun"))
            << "Failed to transition volume " << volume.getDisplayName()
            << " to incremental. This volume may diff-merge next backup.";
    }
    DriverDeviceInfo device;
    if (!driver->getDeviceInfo(volume, device)) {
        LogEntry(logger, debug) << "Device not found for " << volume.getDisplayName()
                                << ", must not be in tracking mode.";
    } else if (device.state == tracking) {
        states[volume.getUuid()] = true;
    }
}

void SnapshotSessionControl::Impl::removeOldCowFiles(const Volumes& volumes) {
    for (const auto& volume : volumes) {
        DriverDeviceInfo device;
        if (!driver->getDeviceInfo(*volume, device)) {
            LogEntry(logger, warning) << "Unable to get device info for: " << volume->getDevice();
            continue;
        }
        if (volume->getMountPoints().empty()) {
            continue;
        }
        const std::string oldFile = snapshot_files::oldCowFile(volume->getMountPoints().front(), device);
        try {
            if (file::exists(oldFile)) {
                file::remove(oldFile);
            }
        } catch (const std::exception& failure) {
            LogEntry(logger, info::level::info) << failure.what();
        }
    }
}

std::vector<std::string>
SnapshotSessionControl::Impl::getSnapshotFiles(const BackupableVolume& volume) const {
    return snapshot_files::pathsUnder(mountRoot / volume.getUuid(), extension->getDriverFiles());
}

/// Throws std::runtime_error if the volume can't have a change record: it isn't mounted, or has no device.
DriverDeviceInfo SnapshotSessionControl::Impl::deviceOf(const BackupableVolume& volume) {
    if (volume.getMountPoints().empty()) {
        throw std::runtime_error("Unable to determine incremental bitmap file name.");
    }
    DriverDeviceInfo device;
    if (!driver->getDeviceInfo(volume, device)) {
        throw std::runtime_error("Unable to determine incremental bitmap file name. No device available.");
    }
    return device;
}

block::IncrementalBitmapInfo
SnapshotSessionControl::Impl::getIncrementalBitmapInfo(const BackupableVolume& volume,
                                                       const DriverDeviceInfo& device) {
    const std::string name = snapshot_files::changeRecord(volume.getMountPoints().front(), device);
    const info::CowFile cowFile(logger, name);
    const std::uint64_t blocks = volume.getBlockCount();
    block::IncrementalBitmapInfo record{name, cowFile.getBitmapOffset(), blocks * info::cow::entrySize,
                                        blocks, unchangedBlocks(blocks, cowFile.getChangedBlocks())};
    LogEntry(logger, debug) << "incr file: " << record.fileName << " | bitmap size: " << record.bitmapSize
                            << " | bitmap offset: " << record.bitmapOffset
                            << " | num bitmap entries: " << record.bitmapEntries;
    return record;
}

VolumeSnapshotInfos SnapshotSessionControl::Impl::buildSnapshotInfo(const Volumes& volumes,
                                                                    IncrementalStates& states) {
    VolumeSnapshotInfos result;
    for (const auto& volume : volumes) {
        const std::string& uuid = volume->getUuid();
        VolumeSnapshotInfo info;
        driver->getSnapshotPath(*volume, info.snapshotPath);
        info.volumeSize = volume->getBlockSize() * volume->getBlockCount();
        const DriverDeviceInfo device = deviceOf(*volume);
        info.incrementalBitmap = getIncrementalBitmapInfo(*volume, device);
        info.incrementalPreserved = states[uuid];
        info.excludedFiles = getSnapshotFiles(*volume);
        info.check = [extension = extension, minor = device.minor] {
            return extension->checkSnapshot(minor);
        };
        if (!result.emplace(uuid, std::move(info)).second) {
            fail(logger, reason("backup-failed"),
                 "Could not add VolumeSnapshotInfo for volume UUID " + volume->getDisplayName(),
                 "Could not insert a VolumeSnapshotInfo object for volume UUID " + uuid +
                     " into the VolumeSnapshotInfo map.");
        }
    }
    return result;
}

SnapshotSessionControl::SnapshotSessionControl(Logger& logger, info::ICowFileSize& cowFileSize)
    : SnapshotSessionControl(
          logger, cowFileSize,
          std::make_unique<info::DriverController>(logger, std::make_unique<info::TolvubdController>()),
          std::make_shared<info::DriverExtension>()) {}

SnapshotSessionControl::SnapshotSessionControl(Logger& logger, info::ICowFileSize& cowFileSize,
                                               std::unique_ptr<info::IDriverController> driver,
                                               std::shared_ptr<const info::IDriverExtension> extension)
    : impl(std::make_unique<Impl>(logger, cowFileSize, std::move(driver), std::move(extension))) {}

SnapshotSessionControl::~SnapshotSessionControl() = default;

VolumeSnapshotInfos
SnapshotSessionControl::startSnapshots(const Volumes& volumes, const IBackupAttributes& attributes,
                                       const ISnapshotAttributes& /*snapshotAttributes*/) {
    return impl->startSnapshots(volumes, attributes);
}

VolumeSnapshotInfos SnapshotSessionControl::transitionToIncremental(const Volumes& volumes, bool success) {
    return impl->transitionToIncremental(volumes, success);
}

} // namespace agent::core::backup
