#include "unit/core/backup/SnapshotSessionControlFixture.h"

namespace agent::core::backup {
namespace {

using info::level::debug;
using info::level::error;
using info::level::warning;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char* noDevice = "Unable to determine incremental bitmap file name. No device available.";

TEST_F(SnapshotSessionControlTest, ASuccessfulEndOwesNothing) {
    const auto volume = makeVolume(one);
    writeCowFile(one, ".tolvu1", 0);
    track(one, "/.tolvu1", 3);
    const VolumeSnapshotInfos infos = control->transitionToIncremental({volume}, true);
    EXPECT_THAT(driver->calls, ElementsAre("makeEmptyHistory " + one, "transitionToIncremental " + one));
    EXPECT_TRUE(infos.at(one).incrementalPreserved);
    EXPECT_EQ(infos.at(one).incrementalBitmap.fileName, mountPoint(one) + "/.tolvu1");
    EXPECT_FALSE(file::exists(mountPoint(one) + "/.tolvu"));
    EXPECT_TRUE(file::exists(mountPoint(one) + "/.tolvu1"));
}

TEST_F(SnapshotSessionControlTest, TheOldFileIsTheSecondForEveryOtherName) {
    const auto volume = makeVolume(one);
    for (const char* cowFile : {"/.tolvu", "/odd/.tolvu1"}) {
        writeCowFile(one, ".tolvu", 0);
        writeCowFile(one, ".tolvu1", 0);
        track(one, cowFile, 3);
        control->transitionToIncremental({volume}, true);
        EXPECT_TRUE(file::exists(mountPoint(one) + "/.tolvu")) << cowFile;
        EXPECT_FALSE(file::exists(mountPoint(one) + "/.tolvu1")) << cowFile;
    }
}

TEST_F(SnapshotSessionControlTest, AnOldFileThatCannotBeRemoved) {
    const auto volume = makeVolume(one);
    dir::make(mountPoint(one) + "/.tolvu1/full");
    track(one, "/.tolvu", 3);
    control->transitionToIncremental({volume}, true);
    EXPECT_TRUE(log.hasPart(info::level::info, "std::remove(\"" + mountPoint(one) + "/.tolvu1\") failed"));
}

/// The snapshots of a crashed backup show data that no image has, so the next changes must not be counted
/// from them.
TEST_F(SnapshotSessionControlTest, SnapshotsThatTheSessionHasNotStartedAreDestroyedAtAFailedEnd) {
    const auto first = makeVolume(one);
    const auto second = makeVolume(two);
    track(one, "/.tolvu", 3);
    track(two, "/.tolvu", 3);
    driver->failing = {"revertOnFailure"};
    EXPECT_EQ(endFailure({first, second}), noDevice);
    EXPECT_THAT(driver->calls,
                ElementsAre("revertOnFailure " + one, "destroyDevice " + one, "revertOnFailure " + two,
                            "destroyDevice " + two, "transitionToIncremental " + one,
                            "transitionToIncremental " + two));
    EXPECT_TRUE(log.has(error, "Failed to revert device /dev/disk1"));
    EXPECT_TRUE(log.has(warning, "What volume " + one + " (" + mountPoint(one) +
                                     ") owes to its image is not known, destroying its snapshot"));
    EXPECT_TRUE(log.has(error, "Failed to transition volume " + one + " (" + mountPoint(one) +
                                   ") to incremental. This volume may diff-merge next backup."));
    EXPECT_THAT(driver->devices, IsEmpty());
}

TEST_F(SnapshotSessionControlTest, ASnapshotThatResistsIsNoBaselineEither) {
    const auto volume = makeVolume(one);
    track(one, "/.tolvu", 3);
    driver->failing = {"revertOnFailure", "destroyDevice"};
    control->transitionToIncremental({volume}, false);
    EXPECT_EQ(driver->devices.at(one).state, 3);
    EXPECT_THAT(driver->calls, Not(Contains("transitionToIncremental " + one)));
    EXPECT_TRUE(log.has(error, "Could not destroy snapshot for " + one));
}

/// The session failed before it reached the volume, so the changes recorded so far are still correct.
TEST_F(SnapshotSessionControlTest, ATrackedVolumeThatWasNotSnapshottedKeepsItsDeviceAndItsHistory) {
    const auto volume = makeVolume(one);
    track(one);
    driver->failing = {"revertOnFailure"};
    control->transitionToIncremental({volume}, false);
    EXPECT_EQ(driver->devices.at(one).state, 2);
    EXPECT_THAT(driver->calls, Not(Contains("makeHistory " + one)));
}

TEST_F(SnapshotSessionControlTest, ADebtThatCannotBeKeptCostsTheDevice) {
    const auto volume = makeVolume(one);
    for (const char* failing : {"makeHistory", "revertOnFailure", "rollForward"}) {
        track(one);
        driver->failing.clear();
        start({volume}, FULL);
        driver->failing = {failing};
        EXPECT_EQ(endFailure({volume}), noDevice) << failing;
        EXPECT_FALSE(driver->devices.contains(one)) << failing;
    }
}

TEST_F(SnapshotSessionControlTest, AMergeThatBrokeOffCostsTheDevice) {
    const auto volume = makeVolume(one);
    track(one);
    driver->failing = {"rollForward"};
    EXPECT_EQ(startFailure({volume}), "Failed to roll forward!");
    driver->failing.clear();
    EXPECT_EQ(endFailure({volume}), noDevice);
    EXPECT_THAT(driver->calls, Not(Contains("makeHistory " + one)));
}

/// The driver has lost track, so what the image lacks is unknown.
TEST_F(SnapshotSessionControlTest, ADriverErrorBeforeAFailedBackupOfAnotherTypeCostsTheDevice) {
    const auto volume = makeVolume(one);
    track(one, "/.tolvu", 2, 5);
    start({volume}, DIFFERENTIAL_MERGE);
    EXPECT_EQ(endFailure({volume}), noDevice);
}

TEST_F(SnapshotSessionControlTest, AnIncrementalWhoseDeviceGoesMeanwhileIsNone) {
    const auto volume = makeVolume(one);
    track(one);
    driver->lookups = 2;
    EXPECT_FALSE(start({volume}).at(one).incrementalPreserved);
    EXPECT_THAT(driver->calls, Not(Contains("rollForward " + one)));
}

TEST_F(SnapshotSessionControlTest, AFailedBackupOfAnotherTypeKeepsWhatEarlierOnesOwe) {
    const auto volume = makeVolume(one);
    for (const std::uint32_t type : {FULL, DIFFERENTIAL_MERGE}) {
        track(one);
        writeCowFile(one, ".tolvu", 0);
        writeCowFile(one, ".tolvu1", 0);
        start({volume}, type);
        driver->calls.clear();
        control->transitionToIncremental({volume}, false);
        EXPECT_THAT(driver->calls, ElementsAre("rollForward " + one, "makeHistory " + one,
                                               "revertOnFailure " + one, "transitionToIncremental " + one));
    }
}

TEST_F(SnapshotSessionControlTest, NothingIsKeptOfAFirstSnapshotThatFails) {
    const auto volume = makeVolume(one);
    start({volume}, FULL);
    driver->calls.clear();
    EXPECT_EQ(endFailure({volume}), noDevice);
    EXPECT_THAT(driver->calls, Not(Contains("rollForward " + one)));
    EXPECT_THAT(driver->calls, Not(Contains("makeHistory " + one)));
}

TEST_F(SnapshotSessionControlTest, ADeviceThatGoesBeforeItsOldFileIsRemoved) {
    const auto volume = makeVolume(one);
    writeCowFile(one, ".tolvu1", 0);
    track(one, "/.tolvu", 3);
    driver->lookups = 2;
    EXPECT_TRUE(control->transitionToIncremental({volume}, true).at(one).incrementalPreserved);
    EXPECT_TRUE(log.has(warning, "Unable to get device info for: /dev/disk1"));
    EXPECT_TRUE(file::exists(mountPoint(one) + "/.tolvu1"));
}

TEST_F(SnapshotSessionControlTest, ADeviceThatIsGoneAtTheEnd) {
    const auto volume = makeVolume(one);
    driver->failing = {"transitionToIncremental"};
    EXPECT_EQ(messageOf<std::runtime_error>([&] { control->transitionToIncremental({volume}, false); }),
              "Unable to determine incremental bitmap file name. No device available.");
    EXPECT_TRUE(log.has(debug, "Device not found for " + one + " (" + mountPoint(one) +
                                   "), must not be in tracking mode."));
}

} // namespace
} // namespace agent::core::backup
