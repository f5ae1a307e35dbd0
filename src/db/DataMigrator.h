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

/// Reads the database of an earlier version of the agent, stores what still matters of it, and renames the
/// file, so that this happens once.
///
/// A database that can be opened but not read (damaged, locked, without the tables) counts as one that holds
/// nothing. It is renamed, too, and not changed: its content stays for whoever wants to try again.
/// Owns:    nothing; logger, data provider and volume provider must outlive it.
/// Threads: the one that starts the agent.
/// Fails:   with false, logged, if a store or the list of volumes can't be had, or the file can't be renamed.
///          What has been moved by then stays, and the next start moves the rest.
///
/// It may thus run again when the agent has long been at work. What exists already is newer, and stays: the
/// pairing, a volume that the database has a row of, a volume's history, the size of a CoW file. Above all, a
/// history that owes blocks must not be made anew as one that owes none.
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
    /// The earlier versions for Windows named volumes in another column, and kept the system's version.
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
