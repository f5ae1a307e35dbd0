#include "core/backup/phase/PostBackupRecord.h"

#include "info/BackupableVolume.h"
#include "support/Messages.h"
#include "support/TestDatabase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/// Snapshot information that records for which volumes it was requested.
class AskedSnapshotInfo : public ISnapshotInfo {
public:
    [[nodiscard]] VolumeSnapshotInfo getVolumeSnapshotInfo(const std::string& uuid) const override {
        asked.push_back(uuid);
        if (missing) {
            throw std::invalid_argument("no record of " + uuid);
        }
        VolumeSnapshotInfo info;
        info.incrementalPreserved = true;
        return info;
    }

    bool missing = false;
    mutable std::vector<std::string> asked;
};

class PostBackupRecordTest : public testing::Test {
protected:
    void add(const std::string& uuid, bool isOSVolume) {
        info::VolumeDescription description;
        description.uuid = uuid;
        description.osVolume = isOSVolume;
        volumes.push_back(std::make_shared<info::BackupableVolume>(description));
    }

    PostBackupRecord phase(bool success) {
        return {log.logger, database.provider, volumes, success, snapshotInfo};
    }

    test::RecordingLogger log;
    test::TestDatabase database;
    PopulateVolumes::Volumes volumes;
    std::shared_ptr<AskedSnapshotInfo> asked = std::make_shared<AskedSnapshotInfo>();
    std::shared_ptr<ISnapshotInfo> snapshotInfo = asked;
};

TEST_F(PostBackupRecordTest, AsksForTheFirstVolumeWithTheSystemAndWritesNothing) {
    add("data", false);
    add("root", true);
    add("usr", true);
    EXPECT_EQ(phase(true).getName(), "Post backup record");
    phase(true).execute();
    EXPECT_THAT(asked->asked, ElementsAre("root"));
    EXPECT_THAT(database.provider.getVolumeUUIDs(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(PostBackupRecordTest, FailedBackupIsNotRecorded) {
    add("root", true);
    asked->missing = true;
    phase(false).execute();
    EXPECT_THAT(asked->asked, IsEmpty());
}

TEST_F(PostBackupRecordTest, FailedBackupMayHaveNoSnapshots) {
    add("root", true);
    snapshotInfo = nullptr;
    EXPECT_NO_THROW(phase(false).execute());
}

TEST_F(PostBackupRecordTest, BackupWithoutTheSystemIsNotRecorded) {
    add("data", false);
    phase(true).execute();
    EXPECT_THAT(asked->asked, IsEmpty());
}

TEST_F(PostBackupRecordTest, SystemWithoutItsRecordFails) {
    add("root", true);
    asked->missing = true;
    EXPECT_EQ(test::messageOf<std::invalid_argument>([&] { phase(true).execute(); }), "no record of root");
}

} // namespace
} // namespace agent::core::backup::phase
