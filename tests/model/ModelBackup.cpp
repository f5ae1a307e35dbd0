#include "model/ModelBackup.h"

#include "common/File.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/SnapshotAttributes.h"
#include "core/backup/SnapshotSessionControl.h"
#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/ICowFileSize.h"
#include "model/ModelDriver.h"
#include "support/FakeDriverExtension.h"
#include "support/RecordingLogger.h"

#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <memory>
#include <stdexcept>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_map>

namespace agent::model {

namespace {

using core::backup::DIFFERENTIAL_MERGE;
using core::backup::FULL;
using core::backup::INCREMENTAL;

constexpr std::uint64_t bytesPerMiB = 1048576;
constexpr int failedStatus = 1;

/// A volume with plenty of free space.
class RoomyVolume : public info::BackupableVolume {
public:
    using BackupableVolume::BackupableVolume;
    [[nodiscard]] std::uint64_t getSpaceFree() const override { return 100 * bytesPerMiB; }
};

class SmallCowFiles : public info::ICowFileSize {
public:
    std::uint64_t getCowFileSizeMiB(info::Logger& /*logger*/, const std::string& /*uuid*/,
                                    std::uint64_t /*size*/, const std::string& /*fileSystem*/) override {
        return 1;
    }
};

/// Reports for a snapshot the state that the model's driver has for its device.
class ModelExtension : public test::FakeDriverExtension {
public:
    explicit ModelExtension(const World& world) : world(world) {}

    [[nodiscard]] int checkSnapshot(std::int32_t minor) const override {
        for (const VolumeState& volume : world.state().volumes) {
            if (volume.device.state == activeSnapshot && volume.device.minor == minor) {
                return volume.device.error;
            }
        }
        return ENOENT;
    }

private:
    const World& world;
};

void stepOrFail(const char* what) {
    if (fails(Step::call)) {
        throw std::runtime_error(what);
    }
}

std::uint32_t checksumOf(const Units& image) {
    std::uint32_t sum = 1;
    for (std::size_t unit = 0; unit < headUnits; ++unit) {
        sum = sum * 31 + image.at(unit);
    }
    return sum | 1U;
}

/// One run of a backup, in the process that a fault may kill.
class Run {
public:
    Run(World& world, const BackupOrder& order, HeldMounts& mounts)
        : world(world),
          order(order),
          mounts(mounts),
          control(log.logger, sizes,
                  std::make_unique<info::DriverController>(
                      log.logger, std::make_unique<ModelDriver>(world),
                      [&] { return info::DriverStatusFiles{world.statusFile(), world.statusFile()}; }),
                  std::make_shared<ModelExtension>(world)) {
        for (std::size_t index = 0; index < order.volumes; ++index) {
            volumes.push_back(std::make_shared<RoomyVolume>(describe(index)));
            types.push_back(order.type);
        }
    }

    bool execute() {
        const bool success = transfer();
        try {
            control.transitionToIncremental(volumes, success);
        } catch (const std::exception& error) {
            log.logger.print(error.what(), info::level::error);
        }
        return success;
    }

    [[nodiscard]] std::vector<std::string> lines() const {
        std::vector<std::string> found;
        for (const auto& line : log.lines()) {
            if (line.level < info::level::debug) {
                found.push_back(line.text);
            }
        }
        return found;
    }

private:
    [[nodiscard]] info::VolumeDescription describe(std::size_t index) const {
        info::VolumeDescription description;
        description.device = World::devicePathOf(index);
        description.fileSystem = "xfs";
        description.size = unitCount * unitSize;
        description.uuid = World::uuidOf(index);
        description.mountPoints = {world.mountPointOf(index)};
        description.blockSize = unitSize;
        description.blockCount = unitCount;
        description.mounted = true;
        return description;
    }

    bool transfer() {
        try {
            stepOrFail("the target can't be reached");
            validate();
            const auto infos = startSnapshots();
            stepOrFail("a script is gone");
            for (std::size_t index = 0; index < order.volumes; ++index) {
                copy(index, infos.at(World::uuidOf(index)));
            }
            close();
            return true;
        } catch (const std::exception& error) {
            log.logger.print(error.what(), info::level::error);
            return false;
        }
    }

    /// Validates like the phases that validate local and remote targets.
    void validate() {
        for (std::size_t index = 0; index < order.volumes; ++index) {
            const VolumeState& volume = world.volume(index);
            if (!volume.isKnown) {
                types[index] = FULL;
            } else if (types[index] == INCREMENTAL &&
                       (volume.checksum == 0 || volume.checksum != checksumOf(volume.image))) {
                types[index] = DIFFERENTIAL_MERGE;
            }
        }
    }

    core::backup::VolumeSnapshotInfos startSnapshots() {
        std::unordered_map<std::string, core::backup::VolumeAttributes> records;
        for (std::size_t index = 0; index < order.volumes; ++index) {
            records[World::uuidOf(index)] = {0, types[index], {}};
        }
        auto infos = control.startSnapshots(volumes, core::backup::BackupAttributes(std::move(records)),
                                            core::backup::SnapshotAttributes(0, {}, 0));
        for (std::size_t index = 0; index < order.volumes; ++index) {
            if (types[index] == INCREMENTAL && !infos.at(World::uuidOf(index)).incrementalPreserved) {
                types[index] = DIFFERENTIAL_MERGE;
            }
            const FaultsSuspended others;
            if (order.isHeldOpen) {
                mounts.hold(index);
            }
            if (order.isSnapshotLost) {
                world.volume(index).device.error = ESTALE;
            }
            // Programs go on writing to the volume.
            world.volume(index).content.at(world.newStamp() % unitCount) = world.newStamp();
        }
        return infos;
    }

    void copy(std::size_t index, const core::backup::VolumeSnapshotInfo& info) {
        VolumeState& volume = world.volume(index);
        if (!volume.isKnown || types[index] != INCREMENTAL) {
            stepOrFail("the target is gone");
            volume.isKnown = true;
            volume.checksum = 0;
        }
        const std::vector<std::uint64_t> changed = changesIn(info);
        const Units& shown = volume.device.error == 0 ? volume.device.baseline : volume.content;
        for (std::size_t unit = 0; unit < unitCount; ++unit) {
            if (types[index] != INCREMENTAL || changed.at(unit) != 0) {
                stepOrFail("the target is gone");
                volume.image.at(unit) = shown.at(unit);
            }
        }
        if (info.check() != 0) {
            throw std::runtime_error("the snapshot has not lasted");
        }
    }

    static std::vector<std::uint64_t> changesIn(const core::backup::VolumeSnapshotInfo& info) {
        const FaultsSuspended copy;
        const std::string bytes = test::readFile(info.incrementalBitmap.fileName);
        std::vector<std::uint64_t> words(unitCount, 1);
        const std::uint64_t offset = info.incrementalBitmap.bitmapOffset;
        if (bytes.size() >= offset + words.size() * sizeof words.front()) {
            std::memcpy(words.data(), bytes.data() + offset, words.size() * sizeof words.front());
        }
        return words;
    }

    void close() {
        for (std::size_t index = 0; index < order.volumes; ++index) {
            stepOrFail("the database is locked");
            world.volume(index).checksum = checksumOf(world.volume(index).image);
        }
        stepOrFail("cancelled at the last moment");
    }

    World& world;
    const BackupOrder& order;
    HeldMounts& mounts;
    test::RecordingLogger log;
    SmallCowFiles sizes;
    core::backup::SnapshotSessionControl control;
    core::backup::SnapshotSessionControl::Volumes volumes;
    std::vector<std::uint32_t> types;
};

/// Compares each image with the baseline, which is what the snapshot showed during the copy.
std::string differences(World& world, std::size_t volumes) {
    std::string found;
    for (std::size_t index = 0; index < volumes; ++index) {
        const VolumeState& volume = world.volume(index);
        for (std::size_t unit = 0; unit < unitCount; ++unit) {
            if (volume.image.at(unit) != volume.device.baseline.at(unit)) {
                found += " volume " + std::to_string(index) + " unit " + std::to_string(unit);
            }
        }
    }
    return found;
}

BackupResult runHere(World& world, const BackupOrder& order, HeldMounts& mounts) {
    Run run(world, order, mounts);
    arm(order.fault);
    BackupResult result;
    const bool success = run.execute();
    result.steps = disarm();
    result.outcome = success ? Outcome::finished : Outcome::failed;
    result.wrong = success ? differences(world, order.volumes) : std::string();
    result.log = run.lines();
    return result;
}

/// Runs the backup in a child process, which the fault kills unless the backup ends first.
BackupResult runToBeKilled(World& world, const BackupOrder& order, HeldMounts& mounts) {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(runHere(world, order, mounts).outcome == Outcome::finished ? 0 : failedStatus);
    }
    int status = 0;
    if (child < 0 || ::waitpid(child, &status, 0) != child) {
        throw std::runtime_error("no process to be killed");
    }
    const bool isKilled = WIFEXITED(status) && WEXITSTATUS(status) == killedStatus;
    const bool isFinished = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    BackupResult result;
    result.outcome = isKilled ? Outcome::killed : isFinished ? Outcome::finished : Outcome::failed;
    result.wrong = isFinished ? differences(world, order.volumes) : std::string();
    for (std::size_t index = 0; isKilled && index < order.volumes; ++index) {
        if (world.volume(index).device.state == activeSnapshot && order.isMountLeft) {
            order.isHeldOpen ? mounts.hold(index) : mounts.mount(index);
        }
    }
    return result;
}

} // namespace

BackupResult runBackup(World& world, const BackupOrder& order, HeldMounts& mounts) {
    return order.fault.kind == Fault::Kind::kill ? runToBeKilled(world, order, mounts)
                                                 : runHere(world, order, mounts);
}

HeldMounts::~HeldMounts() {
    clear();
}

void HeldMounts::mount(std::size_t index) {
    if (isSnapshotMounted(index)) {
        return;
    }
    const std::string path = World::snapshotMountOf(index);
    ::mkdir("/tmp/tolvuMountRoot", S_IRWXU);
    ::mkdir(path.c_str(), S_IRWXU);
    if (::syscall(SYS_mount, "none", path.c_str(), "tmpfs", 0, "size=64k") != 0) {
        throw std::runtime_error("can't mount at " + path);
    }
}

void HeldMounts::hold(std::size_t index) {
    mount(index);
    if (descriptors.at(index) < 0) {
        descriptors.at(index) =
            ::open((World::snapshotMountOf(index) + "/file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, S_IRWXU);
    }
}

void HeldMounts::release() {
    for (int& descriptor : descriptors) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        descriptor = -1;
    }
}

void HeldMounts::clear() {
    release();
    for (std::size_t index = 0; index < volumeCount; ++index) {
        if (isSnapshotMounted(index)) {
            ::umount2(World::snapshotMountOf(index).c_str(), MNT_DETACH);
        }
    }
}

} // namespace agent::model
