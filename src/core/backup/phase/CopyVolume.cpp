#include "core/backup/phase/CopyVolume.h"

#include "common/PosixError.h"
#include "core/backup/BackupType.h"
#include "core/backup/PhaseRunner.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "core/backup/VolumeReader.h"
#include "core/backup/phase/CalculateTransferSize.h"
#include "core/backup/phase/CopyChunkRanges.h"
#include "core/backup/phase/CreateChunkRangeProvider.h"
#include "core/backup/phase/ModifyBootSector.h"
#include "core/backup/phase/OpenVolumeIO.h"
#include "core/backup/phase/PunchHoles.h"
#include "core/fs/LoggedBuffer.h"

#include <stdexcept>
#include <utility>

namespace agent::core::backup::phase {

namespace {

constexpr std::size_t copyBufferBytes = 0x400000;
constexpr std::size_t bufferAlignment = 4096;

} // namespace

/// One run of the copy, with the objects that its phases share. The members are declared in the order in
/// which they depend on each other.
class CopyVolume::Copy {
public:
    Copy(CopyVolume& phase, const VolumeSnapshotInfo& snapshot)
        : phase(phase),
          snapshot(snapshot),
          blockSize(phase.volume->getBlockSize()),
          maxBlocksPerChunk(blockSize == 0 ? 0 : copyBufferBytes / blockSize),
          buffer(fs::createLoggedBuffer(copyBufferBytes, bufferAlignment, phase.logger)),
          reader(phase.logger, snapshot.snapshotPath),
          ranges(phase.logger, phase.volume),
          fileSystems(phase.logger, phase.volume->getSectorSize(), &reader) {}

    void open(bool isDiffMerge) {
        run(list(std::make_unique<OpenVolumeIO>(phase.session, phase.uuid, reader, writer, isDiffMerge)));
    }

    void transfer(bool isIncremental) {
        std::unique_ptr<fs::IBlockBitmapChunkProvider> usedBlocks = fileSystems.create();
        if (!usedBlocks) {
            logNearMiss();
            throw info::WithReason<std::runtime_error>(info::reason("file-system-unsupported"),
                                                       "File system not recognized for " + phase.uuid);
        }
        const bool copiesEveryBlock = !hasVolumeBlockSize(*usedBlocks);
        Phases phases =
            list(std::make_unique<CreateChunkRangeProvider>(source(isIncremental, copiesEveryBlock), provider,
                                                            ranges, fileSystems, maxBlocksPerChunk),
                 std::make_unique<CalculateTransferSize>(phase.logger, phase.uuid, phase.volume->getSize(),
                                                         blockSize, phase.status, provider),
                 std::make_unique<CopyChunkRanges>(phase.logger, phase.uuid, reader, writer, provider,
                                                   blockSize, buffer, phase.status, phase.cancel));
        if (!copiesEveryBlock && canPunchHoles()) {
            phases.push_back(
                std::make_unique<PunchHoles>(phase.session.getTransport(phase.uuid),
                                             ranges.createUnusedExcluder(std::move(usedBlocks), false),
                                             blockSize, phase.cancel, phase.volume->getBlockCount()));
        }
        usedBlocks.reset(); // otherwise it keeps its maps in memory during the copy
        phases.push_back(std::make_unique<ModifyBootSector>(phase.logger, phase.volume->getFileSystem(),
                                                            phase.volume->getSectorSize(), reader, writer));
        run(phases);
    }

private:
    template <typename... Phase>
    static Phases list(std::unique_ptr<Phase>... phase) {
        Phases phases;
        (phases.push_back(std::move(phase)), ...);
        return phases;
    }

    void run(const Phases& phases) { PhaseRunner(phase.logger, phases).run(phase.cancel); }

    /// Logs which file system a volume may have if no parser recognises it.
    void logNearMiss() {
        const std::string nearMiss = fileSystems.nearMiss();
        if (!nearMiss.empty()) {
            info::LogEntry(phase.logger, info::level::error, info::reason("file-system-unsupported"))
                << "Volume " << phase.volume->getDisplayName() << " can't be copied: " << nearMiss;
        }
    }

    /// Whether the map has the volume's block size, which comes from the volume's mount point. The two differ
    /// if another file system is mounted over that mount point, or if the kernel reports smaller blocks than
    /// the file system has.
    [[nodiscard]] bool hasVolumeBlockSize(const fs::IBlockBitmapChunkProvider& map) const {
        const std::uint32_t found = map.getBlockSize();
        if (found == 0 || blockSize == 0 || found == blockSize) {
            return true; // code that needs the block size refuses an unknown one
        }
        info::LogEntry(phase.logger, info::level::error, info::reason("block-size-differs"))
            << "The file system of volume " << phase.volume->getDisplayName() << " has blocks of " << found
            << " bytes, but its mount point says " << blockSize
            << ". What it says of used blocks doesn't fit the volume, so every block is copied.";
        return false;
    }

    [[nodiscard]] CreateChunkRangeProvider::Source source(bool isIncremental, bool copiesEveryBlock) const {
        // Rounded up to the last byte: the file system may use a tail that is no whole block of this size.
        const std::uint64_t blocks = copiesEveryBlock ? (phase.volume->getSize() + blockSize - 1) / blockSize
                                                      : phase.volume->getBlockCount();
        return {snapshot.incrementalBitmap, snapshot.excludedFiles, blocks, isIncremental, copiesEveryBlock};
    }

    [[nodiscard]] bool canPunchHoles() const {
        bool isEnabled = false;
        phase.config.get("holepunch.enabled", isEnabled);
        return isEnabled && phase.session.getTransport(phase.uuid)->supportsHolePunching();
    }

    CopyVolume& phase;
    const VolumeSnapshotInfo& snapshot;
    const std::uint32_t blockSize;
    const std::uint64_t maxBlocksPerChunk;
    AlignedBuffer buffer;
    VolumeReader reader;
    std::shared_ptr<ITransport> writer;
    block::BlockRangeProviderFactory ranges;
    fs::UsedBlockBitmapChunkProviderFactory fileSystems;
    std::unique_ptr<block::IBlockRangeProvider> provider;
};

CopyVolume::CopyVolume(info::Logger& logger, BackupSession& session,
                       const std::shared_ptr<ISnapshotInfo>& snapshotInfo,
                       std::shared_ptr<const info::BackupableVolume> volume,
                       const IBackupAttributes& attributes, IBackupStatusHandler& status,
                       db::IDataProvider& dataProvider, ICancel& cancel, const IConfig& config)
    : logger(logger),
      session(session),
      snapshotInfo(snapshotInfo),
      volume(std::move(volume)),
      attributes(attributes),
      status(status),
      dataProvider(dataProvider),
      cancel(cancel),
      config(config),
      uuid(this->volume->getUuid()) {}

void CopyVolume::execute() {
    const VolumeSnapshotInfo snapshot = snapshotInfo->getVolumeSnapshotInfo(uuid);
    const std::uint32_t type = attributes.getBackupType(uuid);
    const std::string description = volume->getDisplayName();
    info::LogEntry(logger, info::level::info)
        << "The type of backup for volume " << description << " is: " << backupTypeText(type);
    status.setVolumeBackupType(uuid, type);
    status.setVolumeState(uuid, VOLUME_ACTIVE);
    copy(snapshot, type);
    registerImage();
    status.setVolumeState(uuid, VOLUME_FINISHED);
    info::LogEntry(logger, info::level::info) << "Finished copying volume " << description;
}

void CopyVolume::copy(const VolumeSnapshotInfo& snapshot, std::uint32_t type) {
    Copy copy(*this, snapshot);
    info::LogEntry(logger, info::level::info) << "Beginning copying volume " << volume->getDisplayName();
    copy.open(type == DIFFERENTIAL_MERGE);
    invalidateChecksum(type);
    try {
        transfer(copy, snapshot, type);
    } catch (...) {
        invalidateChecksum(type); // in case the database couldn't be written before
        throw;
    }
}

void CopyVolume::transfer(Copy& copy, const VolumeSnapshotInfo& snapshot, std::uint32_t type) {
    try {
        copy.transfer(type == INCREMENTAL);
    } catch (...) {
        checkSnapshot(snapshot); // called for its log line: a broken snapshot explains the failure
        throw;
    }
    if (!checkSnapshot(snapshot)) {
        throw info::WithReason<std::runtime_error>(info::reason("snapshot-lost"),
                                                   "The snapshot has not lasted for its copy!");
    }
}

bool CopyVolume::checkSnapshot(const VolumeSnapshotInfo& snapshot) {
    const int failure = snapshot.check ? snapshot.check() : 0;
    if (failure == 0) {
        return true;
    }
    info::LogEntry(logger, info::level::error, info::reason("snapshot-lost"))
        << "The snapshot " << snapshot.snapshotPath << " of volume " << volume->getDisplayName()
        << " has not lasted for its copy: " << PosixError::describe(failure);
    status.setSnapshotError();
    return false;
}

void CopyVolume::invalidateChecksum(std::uint32_t type) {
    try {
        const bool isKnown = dataProvider.hasVolume(uuid);
        if (!isKnown) {
            info::LogEntry(logger, info::level::debug)
                << "Adding db entry of volume " << volume->getDisplayName();
        }
        if (!isKnown || type != INCREMENTAL) {
            dataProvider.setVolumeChecksum(uuid, 0, db::ChecksumType::libcrc32c);
        }
    } catch (const std::exception&) { // NOLINT(bugprone-empty-catch): see the declaration
    }
}

void CopyVolume::registerImage() {
    session.registerVolume(
        uuid, [this](const std::shared_ptr<ITransport>& transport, std::uint32_t& checksum) {
            return VolumeChecksumGenerator(logger, transport).generate(db::ChecksumType::libcrc32c, checksum);
        });
}

std::string CopyVolume::getName() const {
    return "Copy Volume " + uuid;
}

} // namespace agent::core::backup::phase
