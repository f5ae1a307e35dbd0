#include "db/DataMigrator.h"

#include "common/BaseDirectories.h"
#include "common/File.h"
#include "common/config/Config.h"
#include "db/IDataProvider.h"
#include "db/LegacyDatabase.h"
#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/TolvubdController.h"
#include "info/VolumeProvider.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <utility>
#include <vector>

namespace agent::db {

namespace {

constexpr double bytesPerMiB = 1048576;
/// Larger than any volume, and small enough for a defined conversion from double to an integer.
constexpr double maxMiB = 1ULL << 44;
constexpr unsigned long standardPercent = 10;

/// The CoW file size that the earlier version would have used for a volume. An absurdly large setting gives
/// an absurdly large size; CowFileSize later limits it to what the volume can hold.
std::uint64_t cowMiB(std::uint64_t volumeBytes, unsigned long percent, unsigned long long maxMegs) {
    const double bytes = static_cast<double>(volumeBytes) * static_cast<double>(percent) / 100.0;
    const auto mib = static_cast<std::uint64_t>(std::min(bytes / bytesPerMiB, maxMiB));
    return maxMegs == 0 ? mib : std::min<std::uint64_t>(mib, maxMegs);
}

/// Leaves out volumes without a UUID: every record is stored by UUID.
std::vector<std::shared_ptr<info::BackupableVolume>> namedVolumes(const info::VolumeProvider& provider) {
    return provider.getBackupableVolumes(
        [](const std::shared_ptr<info::BackupableVolume>& volume) { return !volume->getUuid().empty(); });
}

} // namespace

DataMigrator::DataMigrator(info::Logger& logger, IDataProvider& dataProvider,
                           const info::VolumeProvider& volumeProvider)
    : DataMigrator(logger, dataProvider, volumeProvider, [&logger] {
          return std::make_unique<info::DriverController>(logger,
                                                          std::make_unique<info::TolvubdController>());
      }) {}

DataMigrator::DataMigrator(info::Logger& logger, IDataProvider& dataProvider,
                           const info::VolumeProvider& volumeProvider, DriverFactory makeDriver)
    : logger(logger),
      dataProvider(dataProvider),
      volumeProvider(volumeProvider),
      makeDriver(std::move(makeDriver)) {}

bool DataMigrator::migrate(Config& config) {
    const std::string path = dir::base() / "bekd.sqlite";
    if (!file::exists(path)) {
        logger.log(info::level::debug,
                   "The legacy database (%s) doesn't exist (it may have been already migrated). There is no "
                   "database migration needed.",
                   path.c_str());
        return true;
    }
    if (!migrateData(path, config)) {
        info::LogEntry(logger, info::level::error) << "Failed to migrate the legacy database data!";
        return false;
    }
    if (!renameMigrated(path)) {
        info::LogEntry(logger, info::level::error)
            << "Failed to rename the legacy database file! Delete this file to "
               "prevent unnecessary data migration!";
        return false;
    }
    return true;
}

bool DataMigrator::migrateData(const std::string& path, Config& config) {
    try {
        LegacyDatabase legacy(logger, path);
        migrateDevice(legacy);
        if (!isLinux()) {
            migrateConfigValue(legacy, "os_version", "last_win_ver", "Windows version");
        }
        migrateConfigValue(legacy, "agentUUID", "agentUUID", "agent installation UUID");
        migrateVolumes(legacy);
        migrateCowSizes(legacy, config);
        return true;
    } catch (const std::exception& failure) {
        logger.log(info::level::error, "Exception caught while attempting to migrate the legacy database: %s",
                   failure.what());
        return false;
    }
}

void DataMigrator::migrateDevice(LegacyDatabase& legacy) {
    const std::int32_t id = legacy.selectDeviceId();
    if (id == 0) {
        info::LogEntry(logger, info::level::info) << "There was no device ID to migrate in the legacy DB.";
        return;
    }
    std::int32_t present = 0;
    std::string ip;
    std::string agentUUID;
    if (dataProvider.getDevice(present, ip, agentUUID)) {
        logger.log(info::level::info,
                   "The agent is paired with device %d already, so the one of the legacy DB "
                   "stays unused.",
                   present);
        return;
    }
    dataProvider.setDevice(id, "", "");
}

void DataMigrator::migrateConfigValue(LegacyDatabase& legacy, const std::string& name, const std::string& key,
                                      const std::string& meaning) {
    const std::string value = legacy.selectConfigValue(name);
    if (value.empty()) {
        logger.log(info::level::info, "There was no %s to migrate in the legacy DB.", meaning.c_str());
        return;
    }
    dataProvider.setConfigValue(key, value);
}

void DataMigrator::migrateVolumes(LegacyDatabase& legacy) {
    for (const auto& volume : namedVolumes(volumeProvider)) {
        migrateVolume(legacy, *volume);
    }
}

void DataMigrator::migrateVolume(LegacyDatabase& legacy, const info::BackupableVolume& volume) {
    if (dataProvider.hasVolume(volume.getUuid())) {
        logger.log(info::level::info, "What is known about volume %s is newer than the legacy DB, and stays.",
                   volume.getUuid().c_str());
        return;
    }
    const std::uint32_t checksum =
        legacy.selectLastChecksum(isLinux() ? "device" : "volume", volume.getUuid());
    if (checksum != 0) {
        dataProvider.setVolumeChecksum(volume.getUuid(), checksum, legacyChecksumType());
    }
    // If the driver tracks the volume already, no blocks are missing from earlier backups, so the history
    // starts empty. Without a history the volume would count as damaged.
    const std::unique_ptr<info::IDriverController> driver = makeDriver();
    if (!driver->hasIncrementalHistory(volume)) {
        driver->makeHistory(volume, true);
    }
}

/// The earlier version had one percentage and one maximum for all volumes. The configuration has one size for
/// each volume, so this computes the sizes, except for volumes that have one already.
void DataMigrator::migrateCowSizes(LegacyDatabase& legacy, Config& config) {
    const std::string percentText = legacy.selectConfigValue("cow_percent");
    const std::string maxMegsText = legacy.selectConfigValue("max_cow_megs");
    unsigned long percent = 0;
    unsigned long long maxMegs = 0;
    try {
        percent = std::stoul(percentText);
        maxMegs = std::stoull(maxMegsText);
    } catch (const std::exception& failure) {
        logger.log(info::level::debug,
                   "Failed to get cow file size related entries from legacy DB. Error: %s", failure.what());
        return;
    }
    if (percent == 0) {
        percent = standardPercent;
    }
    const nlohmann::json present = config.dump();
    nlohmann::json sizes = nlohmann::json::object();
    for (const auto& volume : namedVolumes(volumeProvider)) {
        const std::string key = "volumes." + volume->getUuid() + ".cowFileSizeMiB";
        if (!present.contains(key)) {
            sizes[key] = cowMiB(volume->getSize(), percent, maxMegs);
        }
    }
    config.set(sizes);
}

bool DataMigrator::renameMigrated(const std::string& path) {
    const std::string renamed = path + ".tolvu-migrated";
    try {
        file::rename(path, renamed);
        return true;
    } catch (const std::exception&) {
        logger.log(info::level::error, "Failed to rename the legacy database to %s", renamed.c_str());
        return false;
    }
}

} // namespace agent::db
