#include "core/backup/phase/ValidateLocalTargets.h"

#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupType.h"
#include "db/DataProvider.h"
#include "info/BackupableVolume.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using info::level::debug;
using info::level::error;
using test::messageOf;
using testing::ElementsAre;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;

constexpr int level3 = info::level::info;

/// A real database that fails when it is asked whether it has one certain volume.
class DatabaseFailingForVolume : public db::DataProvider {
public:
    using DataProvider::DataProvider;

    bool hasVolume(const std::string& uuid) override {
        if (uuid == failingVolume) {
            throw std::runtime_error("database is locked");
        }
        return DataProvider::hasVolume(uuid);
    }

    std::string failingVolume;
};

info::VolumeDescription mounted(const std::string& uuid) {
    info::VolumeDescription description;
    description.uuid = uuid;
    description.device = "/dev/null";
    description.mountPoints = {"/mnt/" + uuid};
    description.mounted = true;
    return description;
}

class ValidateLocalTargetsTest : public testing::Test {
protected:
    ValidateLocalTargetsTest() {
        database.validateProvider();
        ownLog.clear();
    }

    void add(const info::VolumeDescription& description) {
        volumes.push_back(std::make_shared<info::BackupableVolume>(description));
    }

    void remember(const std::string& uuid) {
        database.setVolumeChecksum(uuid, 7, db::ChecksumType::libcrc32c);
    }

    std::string failure() {
        return messageOf<std::runtime_error>([&] { phase.execute(); });
    }

    UUIDGenerator uuids;
    test::TestDirectory directory;
    test::RecordingLogger ownLog;
    DatabaseFailingForVolume database{ownLog.logger, uuids, directory.path()};
    test::RecordingLogger log;
    ValidateLocalTargets::Volumes volumes;
    BackupAttributes attributes{
        {{"a", {0, INCREMENTAL, {}}}, {"b", {0, DIFFERENTIAL_MERGE, {}}}, {"c", {0, FULL, {}}}}};
    ValidateLocalTargets phase{log.logger, volumes, attributes, database};
};

TEST_F(ValidateLocalTargetsTest, KnownVolumesKeepTheTypeThatWasAskedFor) {
    EXPECT_EQ(phase.getName(), "Validate Local Targets");
    for (const char* uuid : {"a", "b", "c"}) {
        add(mounted(uuid));
        remember(uuid);
    }
    phase.execute();
    EXPECT_EQ(attributes.getBackupType("a"), INCREMENTAL);
    EXPECT_EQ(attributes.getBackupType("b"), DIFFERENTIAL_MERGE);
    EXPECT_EQ(attributes.getBackupType("c"), FULL);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(ValidateLocalTargetsTest, NewVolumesAreCopiedInFullWhateverWasAskedFor) {
    add(mounted("a"));
    add(mounted("b"));
    phase.execute();
    EXPECT_EQ(attributes.getBackupType("a"), FULL);
    EXPECT_EQ(attributes.getBackupType("b"), FULL);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{level3, "No db entry found for volume a (/mnt/a), forcing FULL"},
                            Line{level3, "No db entry found for volume b (/mnt/b), forcing FULL"}));
}

TEST_F(ValidateLocalTargetsTest, VolumeThatTheDatabaseFailsForIsComparedAndTheOthersGoOn) {
    for (const char* uuid : {"a", "b", "c"}) {
        add(mounted(uuid));
    }
    remember("b");
    database.failingVolume = "a";
    phase.execute();
    EXPECT_EQ(attributes.getBackupType("a"), DIFFERENTIAL_MERGE);
    EXPECT_EQ(attributes.getBackupType("b"), DIFFERENTIAL_MERGE); // as requested
    EXPECT_EQ(attributes.getBackupType("c"), FULL);
    EXPECT_THAT(log.lines(),
                ElementsAre(Line{debug, "database is locked"},
                            Line{level3, "Could not find cached checksum from database for volume a falling "
                                         "back to DIFFERENTIAL MERGE"},
                            Line{level3, "No db entry found for volume c (/mnt/c), forcing FULL"}));
}

TEST_F(ValidateLocalTargetsTest, VolumeThatWasToBeCopiedInFullIsOnlyComparedIfTheDatabaseFails) {
    add(mounted("c"));
    database.failingVolume = "c";
    phase.execute();
    EXPECT_EQ(attributes.getBackupType("c"), DIFFERENTIAL_MERGE);
}

TEST_F(ValidateLocalTargetsTest, NoVolumesAreAnError) {
    EXPECT_EQ(failure(), "Backupable volume list should not be empty!");
    EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Backupable volume list should not be empty!"}));
}

TEST_F(ValidateLocalTargetsTest, VolumeWhoseDeviceIsGoneIsRefused) {
    info::VolumeDescription gone = mounted("a");
    gone.device = directory / "gone";
    gone.mounted = false; // no longer checked then
    add(gone);
    EXPECT_EQ(failure(), "Cannot backup an inaccessible device!");
    EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Volume a (/mnt/a) is inaccessible!"}));
}

TEST_F(ValidateLocalTargetsTest, UnmountedVolumeIsRefusedEvenAsTheLast) {
    add(mounted("a"));
    add(mounted("b"));
    info::VolumeDescription unmounted = mounted("c");
    unmounted.mounted = false;
    unmounted.mountPoints.clear();
    add(unmounted);
    remember("a");
    remember("b");
    EXPECT_EQ(failure(), "Cannot backup an unmounted device!");
    EXPECT_THAT(log.lines(), ElementsAre(Line{error, "Volume c is NOT mounted"}));
}

} // namespace
} // namespace agent::core::backup::phase
