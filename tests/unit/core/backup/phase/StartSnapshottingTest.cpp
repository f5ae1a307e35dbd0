#include "core/backup/phase/StartSnapshotting.h"

#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupStatusHandler.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotAttributes.h"
#include "support/FakeSnapshotControl.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/RecordingQuiesce.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::core::backup::phase {
namespace {

using info::level::error;
using test::messageOf;
using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;
using Line = test::RecordingLogger::Line;
using Lines = std::vector<Line>;

constexpr int level3 = info::level::info;

const Lines before = {{level3, "Quiescing volumes..."}, {level3, "Volumes Quiesced"}};
const Lines after = {{level3, "Unquiescing volumes..."}, {level3, "Volumes Unquiesced"}};

Lines together(const std::vector<Lines>& parts) {
    Lines all;
    for (const Lines& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

VolumeSnapshotInfo snapshot(bool incrementalPreserved) {
    VolumeSnapshotInfo info;
    info.snapshotPath = "/dev/tolvu0";
    info.incrementalPreserved = incrementalPreserved;
    return info;
}

class StartSnapshottingTest : public testing::Test {
protected:
    StartSnapshottingTest() {
        for (const char* uuid : {"a", "b"}) {
            info::VolumeDescription description;
            description.uuid = uuid;
            volumes.push_back(std::make_shared<info::BackupableVolume>(description));
            script.started[uuid] = snapshot(true);
        }
        script.onStart = [this] { runsBeforeSnapshots = quiesce.runs; };
    }

    /// The log lines, between those of the scripts, when a snapshot has failed.
    static Lines failedBecause(const std::string& reason) {
        return {{error, "Exception caught trying to create snapshots: " + reason}};
    }

    test::RecordingLogger log;
    test::SnapshotScript script;
    test::FakeSnapshotControl control{log.logger, script};
    test::RecordingQuiesce quiesce;
    StartSnapshotting::Volumes volumes;
    BackupAttributes attributes{
        {{"a", {0, INCREMENTAL, {{"stop-a", 5}, {"flush-a", 6}}}}, {"b", {0, FULL, {{"stop-b", 7}}}}}};
    SnapshotAttributes snapshotAttributes{0, {}, 0};
    BackupStatusHandler status{log.logger, {"a", "b"}};
    std::shared_ptr<ISnapshotInfo> snapshotInfo;
    std::vector<std::string> runsBeforeSnapshots;
    StartSnapshotting phase{log.logger,         control, snapshotInfo, volumes, attributes,
                            snapshotAttributes, quiesce, status};

    const std::vector<std::string> pre = {"stop-a 5 pre", "flush-a 6 pre", "stop-b 7 pre"};
    const std::vector<std::string> all = {"stop-a 5 pre",  "flush-a 6 pre",  "stop-b 7 pre",
                                          "stop-a 5 post", "flush-a 6 post", "stop-b 7 post"};
};

TEST_F(StartSnapshottingTest, ScriptsRunBeforeAndAfterTheSnapshots) {
    EXPECT_EQ(phase.getName(), "Start Snapshotting");
    phase.execute();
    EXPECT_EQ(runsBeforeSnapshots, pre);
    EXPECT_EQ(quiesce.runs, all);
    EXPECT_THAT(log.lines(),
                ElementsAreArray(
                    together({before, after, {{level3, "Volumes successfully started snapshotting..."}}})));
    EXPECT_FALSE(status.hasSnapshotError());
    EXPECT_EQ(attributes.getBackupType("a"), INCREMENTAL);
}

TEST_F(StartSnapshottingTest, SnapshotsCanBeFoundFromHereOn) {
    phase.execute();
    ASSERT_TRUE(snapshotInfo);
    EXPECT_EQ(snapshotInfo->getVolumeSnapshotInfo("b").snapshotPath, "/dev/tolvu0");
    EXPECT_EQ(messageOf<std::invalid_argument>(
                  [&] { static_cast<void>(snapshotInfo->getVolumeSnapshotInfo("c")); }),
              "A VolumeSnapshotInfo with UUID c does not exist in the volume snapshot info map. This should "
              "never happen!");
}

TEST_F(StartSnapshottingTest, IncrementalVolumeWithoutItsRecordOfChangesIsCompared) {
    script.started["a"] = snapshot(false);
    script.started["b"] = snapshot(false); // which doesn't matter for a full copy
    phase.execute();
    EXPECT_EQ(attributes.getBackupType("a"), DIFFERENTIAL_MERGE);
    EXPECT_EQ(attributes.getBackupType("b"), FULL);
    const Lines lowered = {
        {error, "Failed to snapshot while preserving incremental tracking information for volume a"},
        {level3, "Downgrading backup type to DIFFERENTIAL_MERGE for volume a"}};
    EXPECT_THAT(log.lines(),
                ElementsAreArray(together(
                    {before, lowered, after, {{level3, "Volumes successfully started snapshotting..."}}})));
    EXPECT_FALSE(status.hasSnapshotError());
}

TEST_F(StartSnapshottingTest, FailedSnapshotRunsTheScriptsAfterItAndIsToldInTheStatus) {
    script.onStart = [] { throw std::runtime_error("no room for the CoW file"); };
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }), "no room for the CoW file");
    EXPECT_EQ(quiesce.runs, all);
    EXPECT_TRUE(status.hasSnapshotError());
    EXPECT_FALSE(snapshotInfo);
    EXPECT_THAT(log.lines(),
                ElementsAreArray(together({before, failedBecause("no room for the CoW file"), after})));
}

TEST_F(StartSnapshottingTest, IncrementalVolumeWithoutASnapshotIsAFailedSnapshot) {
    script.started.erase("a");
    const std::string reason = "A VolumeSnapshotInfo with UUID a does not exist in the volume snapshot info "
                               "map. This should never happen!";
    EXPECT_EQ(messageOf<std::invalid_argument>([&] { phase.execute(); }), reason);
    EXPECT_EQ(quiesce.runs, all);
    EXPECT_TRUE(status.hasSnapshotError());
    EXPECT_THAT(log.lines(), ElementsAreArray(together({before, failedBecause(reason), after})));
}

TEST_F(StartSnapshottingTest, VolumeThatIsCopiedWholeIsNotAskedForItsRecord) {
    script.started.erase("b");
    EXPECT_NO_THROW(phase.execute());
}

TEST_F(StartSnapshottingTest, ScriptThatCannotBeRunBeforeASnapshotEndsItAll) {
    quiesce.onRun = [] { throw std::runtime_error("no such script"); };
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }), "no such script");
    EXPECT_THAT(quiesce.runs, ElementsAre("stop-a 5 pre"));
    EXPECT_THAT(runsBeforeSnapshots, IsEmpty());
    EXPECT_FALSE(snapshotInfo);
    EXPECT_FALSE(status.hasSnapshotError());
    EXPECT_THAT(log.lines(), ElementsAre(before.front()));
}

TEST_F(StartSnapshottingTest, ScriptsThatCannotBeRunAfterTheSnapshotAreTriedOnceMore) {
    quiesce.onRun = [this] {
        if (quiesce.runs.size() == 4) {
            throw std::runtime_error("script is gone");
        }
    };
    EXPECT_EQ(messageOf<std::runtime_error>([&] { phase.execute(); }), "script is gone");
    EXPECT_TRUE(status.hasSnapshotError());
    EXPECT_THAT(quiesce.runs, ElementsAre("stop-a 5 pre", "flush-a 6 pre", "stop-b 7 pre", "stop-a 5 post",
                                          "stop-a 5 post", "flush-a 6 post", "stop-b 7 post"));
    EXPECT_THAT(log.lines(), ElementsAreArray(together(
                                 {before, {after.front()}, failedBecause("script is gone"), after})));
}

} // namespace
} // namespace agent::core::backup::phase
