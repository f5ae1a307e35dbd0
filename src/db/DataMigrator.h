#pragma once

#include "db/ChecksumType.h"
#include "db/IDataMigrator.h"
#include "info/log/Logger.h"

#include <functional>
#include <memory>
#include <string>

namespace agent::info {
class BackupableVolume;
class IDriverController;
class VolumeProvider;
} // namespace agent::info

namespace agent::db {

class IDataProvider;
class LegacyDatabase;

/// Reads the database of an earlier version of the agent, stores what is still needed, and renames the
/// database file, so that the migration happens only once.
///
/// A database that can be opened but not read (damaged, locked, without the tables) counts as empty. It is
/// renamed, too, but not changed, so that an administrator can retry the migration.
/// Owns:    nothing; logger, data provider and volume provider must outlive it.
/// Threads: only the thread that starts the agent calls it.
/// Fails:   `migrate` logs the reason and returns false if a store or the list of volumes is unavailable, or
///          if the file can't be renamed. Values stored before that stay; the next start does the rest.
///
/// A migration that failed therefore runs again, perhaps after the agent has made backups. Values that exist
/// are newer and stay: the pairing, a volume's row in the database, a volume's history, the size of a CoW
/// file. Only the agent's UUID always comes from the old database. Above all, the migration must not replace
/// a history that lists missing blocks with an empty one.
class DataMigrator : public IDataMigrator {
public:
    using DriverFactory = std::function<std::unique_ptr<info::IDriverController>()>;

    DataMigrator(info::Logger& logger, IDataProvider& dataProvider,
                 const info::VolumeProvider& volumeProvider);
    DataMigrator(info::Logger& logger, IDataProvider& dataProvider,
                 const info::VolumeProvider& volumeProvider, DriverFactory makeDriver);
    DataMigrator(const DataMigrator&) = delete;
    DataMigrator& operator=(const DataMigrator&) = delete;
    DataMigrator(DataMigrator&&) = delete;
    DataMigrator& operator=(DataMigrator&&) = delete;
    ~DataMigrator() override = default;

    bool migrate(Config& config) override;

protected:
    /// Earlier versions for Windows stored the volume's name in another column, and also the Windows version.
    [[nodiscard]] virtual bool isLinux() const { return true; }

private:
    [[nodiscard]] static ChecksumType legacyChecksumType() { return ChecksumType::gcrypt32crc; }
    bool migrateData(const std::string& path, Config& config);
    void migrateDevice(LegacyDatabase& legacy);
    void migrateConfigValue(LegacyDatabase& legacy, const std::string& name, const std::string& key,
                            const std::string& meaning);
    void migrateVolumes(LegacyDatabase& legacy);
    void migrateVolume(LegacyDatabase& legacy, const info::BackupableVolume& volume);
    void migrateCowSizes(LegacyDatabase& legacy, Config& config);
    bool renameMigrated(const std::string& path);

    info::Logger& logger;
    IDataProvider& dataProvider;
    const info::VolumeProvider& volumeProvider;
    DriverFactory makeDriver;
};

} // namespace agent::db
