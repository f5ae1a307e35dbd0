#pragma once

#include "app/AgentConfigOptions.h"
#include "common/File.h"
#include "common/config/Config.h"
#include "common/config/JSONConfigDataProvider.h"
#include "db/DataMigrator.h"
#include "info/VolumeProvider.h"
#include "support/FakeDriverController.h"
#include "unit/db/DataProviderFixture.h"

#include <gmock/gmock.h>
#include <nlohmann/json.hpp>

namespace agent::db {

using nlohmann::json;
using test::RawDatabase;
using testing::IsEmpty;

inline constexpr std::uint64_t gib = 1ULL << 30;
inline const std::string one = "11111111-1111-1111-1111-111111111111";
inline const std::string two = "22222222-2222-2222-2222-222222222222";

inline const std::string tables =
    "create table device (id integer not null);"
    "create table config (name text, value text);"
    "create table history (id integer primary key, device text, volume text, result text, "
    "image_chksum integer);";

/// A volume provider with the volumes that the test sets.
class FixedVolumes : public info::VolumeProvider {
public:
    using VolumeProvider::getBackupableVolumes;
    using VolumeProvider::VolumeProvider;

    [[nodiscard]] std::vector<std::shared_ptr<info::BackupableVolume>>
    getBackupableVolumes(const Filter& filter) const override {
        if (!failure.empty()) {
            throw std::runtime_error(failure);
        }
        std::vector<std::shared_ptr<info::BackupableVolume>> found;
        for (const auto& volume : volumes) {
            if (filter(volume)) {
                found.push_back(volume);
            }
        }
        return found;
    }

    void add(const std::string& uuid, std::uint64_t size) {
        info::VolumeDescription description;
        description.uuid = uuid;
        description.size = size;
        volumes.push_back(std::make_shared<info::BackupableVolume>(std::move(description)));
    }

    std::string failure;

private:
    std::vector<std::shared_ptr<info::BackupableVolume>> volumes;
};

/// A driver whose record of calls outlives it.
class NotingDriver : public test::FakeDriverController {
public:
    NotingDriver(std::vector<std::string>& notes, bool withHistory) : notes(notes) {
        hasHistory = withHistory;
    }
    NotingDriver(const NotingDriver&) = delete;
    NotingDriver& operator=(const NotingDriver&) = delete;
    ~NotingDriver() override { notes.insert(notes.end(), calls.begin(), calls.end()); }

private:
    std::vector<std::string>& notes;
};

class DataMigratorTest : public test::DataProviderFixture {
protected:
    DataMigratorTest() {
        dir::make(dir::base());
        provider.validateProvider();
    }
    ~DataMigratorTest() override { dir::remove("/etc/tolvu"); }
    DataMigratorTest(const DataMigratorTest&) = delete;
    DataMigratorTest& operator=(const DataMigratorTest&) = delete;

    static void makeLegacy(const std::string& content) { RawDatabase(legacy).run(tables + content); }

    bool migrate() { return migrator.migrate(config); }

    void expectMigrated() {
        const std::string content = test::readFile(legacy);
        EXPECT_TRUE(migrate());
        EXPECT_FALSE(file::exists(legacy));
        EXPECT_EQ(test::readFile(renamed), content);
    }

    /// Expects that nothing was migrated, as if there had been no legacy database.
    void expectNothingStored() {
        EXPECT_EQ(stored("select id from device;"), std::nullopt);
        EXPECT_EQ(stored("select value from config where key = 'agentUUID';"), std::nullopt);
        EXPECT_THAT(provider.getVolumeUUIDs(), IsEmpty());
        EXPECT_EQ(config.dump(), json::object());
    }

    std::uint32_t checksumOf(const std::string& uuid) {
        std::uint32_t checksum = 0;
        ChecksumType type{};
        provider.getVolumeChecksum(uuid, checksum, type);
        EXPECT_EQ(type, ChecksumType::gcrypt32crc);
        return checksum;
    }

    json sizeOf(const std::string& uuid) {
        return config.dump().value("volumes." + uuid + ".cowFileSizeMiB", json());
    }

    static inline const std::string legacy = dir::base() / "bekd.sqlite";
    static inline const std::string renamed = legacy + ".tolvu-migrated";

    FixedVolumes volumes{recorder.logger};
    std::vector<std::string> driverCalls;
    bool hasHistory = false;
    JSONConfigDataProvider configFile{dir::base() / "config.json"};
    Config config{recorder.logger, configFile, app::agentConfigOptions()};
    DataMigrator migrator{recorder.logger, provider, volumes,
                          [this] { return std::make_unique<NotingDriver>(driverCalls, hasHistory); }};
};

} // namespace agent::db
