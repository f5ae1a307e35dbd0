#include "Session.h"

#include "app/AgentConfigOptions.h"
#include "common/BaseDirectories.h"
#include "common/PosixError.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotAttributes.h"
#include "info/CowFormat.h"
#include "info/DriverState.h"
#include "info/TolvubdController.h"
#include "tools/common/Text.h"

#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <sys/stat.h>
#include <thread>
#include <unordered_map>
#include <utility>

namespace audit {

namespace {

namespace backup = agent::core::backup;
namespace driver_state = agent::info::driver_state;
using agent::info::DriverDeviceInfo;

constexpr std::uint64_t bytesPerMiB = 1048576;
/// Reserve for the file system's own metadata about the files.
constexpr std::uint64_t spare = 16 * bytesPerMiB;

/// How much is free on the volume, or at least `needed`. XFS frees the blocks of a removed file in the
/// background, so those of the CoW file of an audit that has just ended may still be missing. Waits as long
/// as more becomes free.
std::uint64_t freeSpace(const agent::info::BackupableVolume& volume, std::uint64_t needed) {
    constexpr std::chrono::seconds patience(5);
    constexpr std::chrono::milliseconds pause(100);
    std::uint64_t free = volume.getSpaceFree();
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (free < needed && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(pause);
        const std::uint64_t previous = std::exchange(free, volume.getSpaceFree());
        if (free > previous) {
            deadline = std::chrono::steady_clock::now() + patience;
        }
    }
    return free;
}

} // namespace

Session::Session(agent::info::Logger& logger, Volume given)
    : logger(logger),
      volume(std::move(given)),
      configFile(agent::dir::base() / "config.json"),
      config(logger, configFile, agent::app::agentConfigOptions()),
      cowFileSize(config),
      driver(logger, std::make_unique<agent::info::TolvubdController>()),
      control(logger, cowFileSize) {
    lockSnapshots();
    examine();
    requireSpace();
    try {
        start();
    } catch (...) {
        stop();
        throw;
    }
}

Session::~Session() {
    stop();
}

void Session::lockSnapshots() {
    const backup::SnapshotLock::State state = lock.tryAcquire();
    if (state == backup::SnapshotLock::State::others) {
        throw std::runtime_error("a backup is running, or another audit: try again when it has ended");
    }
    if (state != backup::SnapshotLock::State::mine) {
        throw agent::PosixError(std::string(backup::SnapshotLock::usualPath) +
                                    " can't be locked, and a backup could begin meanwhile",
                                errno);
    }
}

/// Reads the driver's state. The audit doesn't touch a state that the next backup repairs by comparing
/// everything.
void Session::examine() {
    DriverDeviceInfo device;
    if (!driver.getDeviceInfo(*volume, device)) {
        untracked = "the driver doesn't track this volume, so the next backup compares everything";
        return;
    }
    if (device.state == driver_state::activeSnapshot) {
        throw std::runtime_error("there is a snapshot of " + volume->getDisplayName() +
                                 " that a backup or an audit has left; the next backup clears it up");
    }
    if (device.state != driver_state::tracking || device.error != 0) {
        throw std::runtime_error("the driver doesn't track " + volume->getDisplayName() +
                                 " any more; the next backup compares everything and begins anew");
    }
    requireHistory();
    wasTracked = true;
}

/// Without the history file an INCREMENTAL fails too, and a merge that breaks off would end the tracking.
void Session::requireHistory() const {
    const std::string path = driver.getIncrementalHistoryPath(*volume);
    std::error_code failure;
    const std::uintmax_t bytes = std::filesystem::file_size(path, failure);
    if (failure || bytes < agent::info::cow::tableOffset + agent::info::cow::tableSize(volume->getSize())) {
        throw std::runtime_error(path + (failure ? " is missing" : " breaks off") +
                                 ": order one backup of another type than INCREMENTAL");
    }
}

/// There must be room for the CoW file, its table, and the blocks that are recorded as owed at the end. If
/// the space ran out during the session, the tracking would end.
void Session::requireSpace() {
    const std::uint64_t cow =
        cowFileSize.getCowFileSizeMiB(logger, volume->getUuid(), volume->getSize(), volume->getFileSystem()) *
        bytesPerMiB;
    const std::uint64_t needed = cow + 3 * agent::info::cow::tableSize(volume->getSize()) + spare;
    const std::uint64_t free = freeSpace(*volume, needed);
    if (free < needed) {
        throw std::runtime_error("the snapshot needs " + tools::sizeText(needed) + " on " +
                                 volume->getDisplayName() + ", and " + tools::sizeText(free) + " are free");
    }
}

void Session::start() {
    const std::string& uuid = volume->getUuid();
    const std::uint32_t type = wasTracked ? backup::INCREMENTAL : backup::FULL;
    const std::unordered_map<std::string, backup::VolumeAttributes> types{{uuid, {0, type, {}}}};
    isStarted = true;
    info =
        control
            .startSnapshots({volume}, backup::BackupAttributes(types), backup::SnapshotAttributes(0, {}, 0))
            .at(uuid);
    if (wasTracked && !info.incrementalPreserved) {
        throw std::runtime_error("the driver doesn't tell any more what has changed on " +
                                 volume->getDisplayName());
    }
}

std::string Session::mountPoint() const {
    const std::string& first = info.excludedFiles.front();
    const std::string root = first.substr(0, first.rfind('/'));
    struct stat mounted{};
    struct stat device{};
    const bool isThere = ::stat(root.c_str(), &mounted) == 0 &&
                         ::stat(info.snapshotPath.c_str(), &device) == 0 && mounted.st_dev == device.st_rdev;
    return isThere ? root : "";
}

void Session::end() {
    const int failure = info.check ? info.check() : 0;
    stop();
    if (failure != 0) {
        throw agent::PosixError("the snapshot has not lasted for the audit", failure);
    }
    DriverDeviceInfo device;
    const bool isTracked = driver.getDeviceInfo(*volume, device) && device.state == driver_state::tracking;
    if (wasTracked && !isTracked) {
        throw std::runtime_error("tracking has ended with the snapshot; the next backup compares everything");
    }
}

void Session::stop() {
    if (!std::exchange(isStarted, false)) {
        return;
    }
    try {
        control.transitionToIncremental({volume}, false);
    } catch (const std::exception& failure) {
        // If the volume wasn't tracked, it has no driver device any more, and describing it fails.
        logger.log(wasTracked ? agent::info::level::error : agent::info::level::debug, "%s", failure.what());
    }
}

} // namespace audit
