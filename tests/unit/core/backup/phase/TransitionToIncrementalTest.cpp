#include "core/backup/phase/TransitionToIncremental.h"

#include "core/backup/SnapshotInfo.h"
#include "support/FakeSnapshotControl.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using testing::ElementsAre;

VolumeSnapshotInfos oneVolume(const std::string& uuid, bool incrementalPreserved) {
    VolumeSnapshotInfo info;
    info.incrementalPreserved = incrementalPreserved;
    return {{uuid, info}};
}

class TransitionToIncrementalTest : public testing::Test {
protected:
    void run(bool success) { TransitionToIncremental(control, snapshotInfo, volumes, success).execute(); }

    test::RecordingLogger log;
    test::SnapshotScript script;
    test::FakeSnapshotControl control{log.logger, script};
    PopulateVolumes::Volumes volumes;
    std::shared_ptr<ISnapshotInfo> snapshotInfo =
        std::make_shared<SnapshotInfo>(oneVolume("of-the-snapshot", false));
};

TEST_F(TransitionToIncrementalTest, FactsOfTheTrackingReplaceThoseOfTheSnapshots) {
    script.ended = oneVolume("tracked", true);
    EXPECT_EQ(TransitionToIncremental(control, snapshotInfo, volumes, true).getName(),
              "Transition To Incremental");
    run(true);
    EXPECT_TRUE(snapshotInfo->getVolumeSnapshotInfo("tracked").incrementalPreserved);
    EXPECT_THROW(static_cast<void>(snapshotInfo->getVolumeSnapshotInfo("of-the-snapshot")),
                 std::invalid_argument);
}

TEST_F(TransitionToIncrementalTest, DriverIsToldWhetherTheBackupHasDelivered) {
    run(true);
    run(false);
    EXPECT_THAT(script.transitionResults, ElementsAre(true, false));
}

TEST_F(TransitionToIncrementalTest, ThereMayHaveBeenNoSnapshots) {
    snapshotInfo = nullptr;
    run(false);
    EXPECT_TRUE(snapshotInfo);
}

} // namespace
} // namespace agent::core::backup::phase
