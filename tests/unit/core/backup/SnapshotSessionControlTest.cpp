#include "common/PosixError.h"
#include "unit/core/backup/SnapshotSessionControlFixture.h"

namespace agent::core::backup {
namespace {

using info::level::debug;
using info::level::error;
using info::level::warning;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

/// The header of the CoW file, which the driver makes, is read for the bitmap of changes. Without the file
/// the start fails.
TEST_F(SnapshotSessionControlTest, FirstSnapshotOfAVolume) {
    const auto volume = makeVolume(one);
    file::remove(mountPoint(one) + "/.tolvu");
    const std::string failure = messageOf<PosixError>([&] { start({volume}, FULL); });
    EXPECT_THAT(failure, testing::StartsWith("Open cow file \"" + mountPoint(one) + "/.tolvu\" failed: "));

    driver->calls.clear();
    driver->devices.clear();
    writeCowFile(one, ".tolvu", 0);
    const VolumeSnapshotInfos infos = start({volume}, FULL);
    EXPECT_THAT(driver->calls, ElementsAre("startSnapshot " + one));
    EXPECT_EQ(sizes.asked, one + " 10485860 ext4");
    ASSERT_EQ(infos.size(), 1U);
    const VolumeSnapshotInfo& info = infos.at(one);
    EXPECT_EQ(info.snapshotPath, "/dev/tolvu0");
    EXPECT_EQ(info.volumeSize, 10485760U);
    EXPECT_FALSE(info.incrementalPreserved);
    EXPECT_THAT(info.excludedFiles,
                ElementsAre(mountRoot + "/" + one + "/.tolvu", mountRoot + "/" + one + "/.tolvu1",
                            mountRoot + "/" + one + "/.tolvu.inc"));
    EXPECT_EQ(info.incrementalBitmap.fileName, mountPoint(one) + "/.tolvu");
    EXPECT_EQ(info.incrementalBitmap.bitmapOffset, 4096U);
    EXPECT_EQ(info.incrementalBitmap.bitmapSize, 20480U);
    EXPECT_EQ(info.incrementalBitmap.bitmapEntries, 2560U);
    EXPECT_EQ(info.incrementalBitmap.unchangedBlocks, 2560U);
    EXPECT_TRUE(log.has(debug, "incr file: " + mountPoint(one) +
                                   "/.tolvu | bitmap size: 20480 | bitmap offset: 4096 | num bitmap "
                                   "entries: 2560"));
}

TEST_F(SnapshotSessionControlTest, IncrementalSessionUsesTheRecordOfTheClosedFile) {
    const auto volume = makeVolume(one);
    writeCowFile(one, ".tolvu", 10);
    track(one);
    const VolumeSnapshotInfos infos = start({volume});
    EXPECT_THAT(driver->calls,
                ElementsAre("isDriverVersionSupported", "startSnapshot " + one, "rollForward " + one));
    EXPECT_TRUE(infos.at(one).incrementalPreserved);
    EXPECT_EQ(infos.at(one).snapshotPath, "/dev/tolvu7");
    EXPECT_EQ(infos.at(one).incrementalBitmap.fileName, mountPoint(one) + "/.tolvu");
    EXPECT_EQ(infos.at(one).incrementalBitmap.unchangedBlocks, 2550U);
    EXPECT_TRUE(log.has(info::level::info, "Validating snapshot session..."));
    EXPECT_TRUE(log.has(info::level::info, "Snapshot session successfully validated"));
}

TEST_F(SnapshotSessionControlTest, AFullBackupOfATrackedVolumeKeepsTheDeviceButNotTheRecord) {
    const auto volume = makeVolume(one);
    track(one);
    EXPECT_FALSE(start({volume}, DIFFERENTIAL_MERGE).at(one).incrementalPreserved);
    EXPECT_THAT(driver->calls, ElementsAre("isDriverVersionSupported", "startSnapshot " + one));
}

TEST_F(SnapshotSessionControlTest, AChangeCountBeyondTheVolumeLeavesNothingUnchanged) {
    const auto volume = makeVolume(one);
    writeCowFile(one, ".tolvu", ~0ULL);
    track(one);
    EXPECT_EQ(start({volume}).at(one).incrementalBitmap.unchangedBlocks, 0U);
}

TEST_F(SnapshotSessionControlTest, TheDriverIsValidatedOnce) {
    const auto volume = makeVolume(one);
    start({volume}, FULL);
    start({volume}, FULL);
    EXPECT_THAT(driver->calls,
                ElementsAre("isDriverVersionSupported", "startSnapshot " + one, "startSnapshot " + one));
}

TEST_F(SnapshotSessionControlTest, ADriverThatIsTooOld) {
    const auto volume = makeVolume(one);
    driver->failing = {"isDriverVersionSupported"};
    EXPECT_EQ(startFailure({volume}), "Failed to validate driver!");
    EXPECT_TRUE(log.has(error, "Failed to validate driver!"));
    EXPECT_EQ(log.lines().size(), 1U);

    driver->failing.clear();
    start({volume});
    EXPECT_THAT(driver->calls,
                ElementsAre("isDriverVersionSupported", "isDriverVersionSupported", "startSnapshot " + one));
}

TEST_F(SnapshotSessionControlTest, OneByteTooFewIsFull) {
    const auto good = makeVolume(one);
    const auto full = makeVolume(two);
    full->free -= 1;
    EXPECT_EQ(startFailure({good, full}), "Cannot backup a full volume");
    EXPECT_THAT(driver->calls, ElementsAre("isDriverVersionSupported"));
    EXPECT_TRUE(log.has(error, "The required free space for volume " + two +
                                   " is 104878088 bytes (100.02 MiB), but only 104878087 bytes (100.02 MiB) "
                                   "is available"));
    EXPECT_TRUE(log.has(error, "Volume " + two + " (" + mountPoint(two) +
                                   ") is full, not enough free space to perform a backup"));
    EXPECT_THAT(log.codes(info::Reason::Kind::failure), ElementsAre("volume-full", "volume-full"));
}

TEST_F(SnapshotSessionControlTest, RoomForOneCowFileOnlyIsToldAtTheFirstBackup) {
    const auto volume = makeVolume(one);
    sizes.mebibytes = 300;
    const std::uint64_t table = required(size) - cowMiB * 1048576;
    const std::uint64_t first = required(size) + 200 * 1048576UL;
    const std::uint64_t second = first + table; // with the history of the first backup
    const std::string start = "The next backup of volume " + one + " (" + mountPoint(one) +
                              ") will need 300.039 MiB for a second CoW file, and this one leaves ";
    const auto warnings = [&](std::uint64_t free) {
        volume->free = free;
        log.clear();
        driver->devices.clear();
        this->start({volume}, FULL);
        std::vector<std::string> told = log.texts(warning);
        std::erase_if(told, [](const std::string& text) { return !text.starts_with("The next backup"); });
        return told;
    };
    EXPECT_THAT(warnings(first + second), testing::IsEmpty());
    EXPECT_THAT(warnings(first + second - 1),
                ElementsAre(start + "300.039 MiB: free the rest, or set volumes." + one +
                            ".cowFileSizeMiB to 299 or less"));
    const std::uint64_t smallest = required(size) + table; // for CoW files of 100 MiB
    EXPECT_THAT(warnings(first + smallest),
                ElementsAre(start + "100.039 MiB: free the rest, or set volumes." + one +
                            ".cowFileSizeMiB to 100 or less"));
    EXPECT_THAT(warnings(first + smallest - 1), ElementsAre(start + "100.039 MiB: free the rest"));
    EXPECT_THAT(warnings(first), ElementsAre(start + "0 B: free the rest"));
}

TEST_F(SnapshotSessionControlTest, NothingIsToldOfAVolumeThatIsTracked) {
    const auto volume = makeVolume(one);
    track(one);
    start({volume});
    EXPECT_FALSE(log.hasPart(warning, "second CoW file"));
}

TEST_F(SnapshotSessionControlTest, TheDriversOwnRoomIsNeededToo) {
    const auto volume = makeVolume(one);
    extension->room["/dev/disk1"] = 5'000'000;
    volume->free = required(size) + 4'999'999;
    EXPECT_EQ(startFailure({volume}), "Cannot backup a full volume");
    EXPECT_TRUE(
        log.has(error, "The required free space for volume " + one +
                           " is 109878088 bytes (104.787 MiB), but only 109878087 bytes (104.787 MiB) "
                           "is available"));
    volume->free += 1;
    start({volume}, FULL);
    EXPECT_THAT(driver->calls, Contains("startSnapshot " + one));
}

TEST_F(SnapshotSessionControlTest, ADriverThatCannotTellItsRoomStartsAllTheSame) {
    const auto volume = makeVolume(one);
    extension->roomFailure = ENXIO;
    start({volume}, FULL);
    EXPECT_THAT(driver->calls, Contains("startSnapshot " + one));
    EXPECT_TRUE(log.hasPart(warning, "no room known of /dev/disk1"));
}

TEST_F(SnapshotSessionControlTest, TheDriversOwnFilesAreNotCopied) {
    const auto volume = makeVolume(one);
    extension->ownFiles = {".tolvu.era", "second"};
    const std::string root = mountRoot + "/" + one + "/";
    EXPECT_THAT(start({volume}, FULL).at(one).excludedFiles,
                ElementsAre(root + ".tolvu", root + ".tolvu1", root + ".tolvu.inc", root + ".tolvu.era",
                            root + "second"));
}

TEST_F(SnapshotSessionControlTest, ASnapshotIsCheckedByTheMinorThatItHasHad) {
    const auto first = makeVolume(one);
    const auto second = makeVolume(two);
    const VolumeSnapshotInfos infos = start({first, second}, FULL);
    EXPECT_EQ(infos.at(one).check(), 0);
    const std::int32_t minor = driver->devices.at(two).minor;
    extension->failures[minor] = ENOSPC;
    driver->devices.clear(); // the check uses the library only, not the driver's device
    EXPECT_EQ(infos.at(one).check(), 0);
    EXPECT_EQ(infos.at(two).check(), ENOSPC);
}

TEST_F(SnapshotSessionControlTest, ARecordWithoutHistoryFailsAnIncremental) {
    const auto volume = makeVolume(one);
    track(one);
    driver->hasHistory = false;
    EXPECT_EQ(startFailure({volume}), "Cannot create snapshot files");
    EXPECT_TRUE(log.has(error, "Could not properly create snapshot files for volume " + one + " (" +
                                   mountPoint(one) + ")"));
    EXPECT_THAT(driver->calls, ElementsAre("isDriverVersionSupported"));
    start({volume}, FULL);
    EXPECT_THAT(driver->calls, Contains("startSnapshot " + one));
}

TEST_F(SnapshotSessionControlTest, NoRecordNeedsNoHistory) {
    const auto volume = makeVolume(one);
    file::remove(mountPoint(one) + "/.tolvu");
    track(one);
    driver->hasHistory = false;
    driver->failing = {"startSnapshot"};
    EXPECT_EQ(startFailure({volume}), "Failed to start snapshot!");
}

TEST_F(SnapshotSessionControlTest, ARecordThatIsNoneIsNoSession) {
    const auto volume = makeVolume(one);
    test::writeFile(mountPoint(one) + "/.tolvu", std::string(8192, 'x'));
    track(one);
    EXPECT_EQ(messageOf<std::logic_error>([&] { start({volume}); }),
              mountPoint(one) + "/.tolvu is not a valid linux cow header");
    EXPECT_THAT(driver->calls, ElementsAre("isDriverVersionSupported"));
}

TEST_F(SnapshotSessionControlTest, AnIncrementalWithoutDeviceIsSnapshottedAnew) {
    const auto volume = makeVolume(one);
    EXPECT_FALSE(start({volume}).at(one).incrementalPreserved);
    EXPECT_THAT(driver->calls, ElementsAre("isDriverVersionSupported", "startSnapshot " + one));
    EXPECT_TRUE(log.has(info::level::info, "Found no incremental mode snapshot for volume " + one +
                                               ", falling back to diff merge."));
}

TEST_F(SnapshotSessionControlTest, ADeviceWithAnErrorIsDestroyedAndSetUpAnew) {
    for (const auto& [state, deviceError] : {std::pair{2, 5}, std::pair{3, 0}}) {
        const auto volume = makeVolume(one);
        driver->calls.clear();
        track(one, "/.tolvu", state, deviceError);
        EXPECT_FALSE(start({volume}).at(one).incrementalPreserved);
        EXPECT_THAT(driver->calls, Contains("destroyDevice " + one));
        EXPECT_THAT(driver->calls, Not(Contains("rollForward " + one)));
        EXPECT_EQ(driver->devices.at(one).minor, 0);
    }
    EXPECT_EQ(log.count(warning, "Device " + one + " not in active incremental state, destroying snapshot"),
              2);
    EXPECT_THAT(
        log.codes(info::Reason::Kind::fallback),
        ElementsAre("tracking-lost", "snapshot-not-mounted", "tracking-lost", "snapshot-not-mounted"));
}

TEST_F(SnapshotSessionControlTest, ADeviceThatCannotBeDestroyed) {
    const auto volume = makeVolume(one);
    track(one, "/.tolvu", 3);
    driver->failing = {"destroyDevice"};
    EXPECT_EQ(startFailure({volume}), "Could not destroy snapshot for " + one);
    EXPECT_THAT(driver->calls, Not(Contains("startSnapshot " + one)));
}

TEST_F(SnapshotSessionControlTest, AFailedStartLeavesTheOthersToTheCaller) {
    const auto first = makeVolume(one);
    const auto second = makeVolume(two);
    driver->failing = {"startSnapshot " + two};
    EXPECT_EQ(startFailure({first, second}), "Failed to start snapshot!");
    EXPECT_EQ(driver->devices.at(one).state, 3);
}

TEST_F(SnapshotSessionControlTest, AFailedRollForwardFailsTheSession) {
    const auto volume = makeVolume(one);
    track(one);
    driver->failing = {"rollForward"};
    EXPECT_EQ(startFailure({volume}), "Failed to roll forward!");
}

TEST_F(SnapshotSessionControlTest, AVolumeTwice) {
    const auto volume = makeVolume(one);
    EXPECT_EQ(startFailure({volume, volume}, FULL), "Could not insert a VolumeSnapshotInfo object for volume "
                                                    "UUID " +
                                                        one + " into the VolumeSnapshotInfo map.");
    EXPECT_TRUE(log.has(error, "Could not add VolumeSnapshotInfo for volume UUID " + one + " (" +
                                   mountPoint(one) + ")"));
}

TEST_F(SnapshotSessionControlTest, AVolumeWithoutMountPoint) {
    info::VolumeDescription description = describe(one);
    description.mountPoints.clear();
    const auto volume = std::make_shared<TestVolume>(std::move(description));
    track(one);
    driver->failing = {"startSnapshot"};
    driver->hasHistory = false;
    EXPECT_EQ(startFailure({volume}), "Failed to start snapshot!");
    driver->failing.clear();
    EXPECT_EQ(startFailure({volume}), "Unable to determine incremental bitmap file name.");
    EXPECT_EQ(messageOf<std::runtime_error>([&] { control->transitionToIncremental({volume}, true); }),
              "Unable to determine incremental bitmap file name.");
}

TEST_F(SnapshotSessionControlTest, TheRecordFollowsStateAndName) {
    const auto volume = makeVolume(one);
    const auto record = [&](std::int32_t state, const std::string& cowFile) {
        // While the driver refuses to end the snapshot, the control examines the device as it is.
        driver->failing = {"transitionToIncremental"};
        track(one, cowFile, state);
        writeCowFile(one, ".tolvu", 0);
        return control->transitionToIncremental({volume}, true).at(one).incrementalBitmap.fileName;
    };
    const std::string first = mountPoint(one) + "/.tolvu";
    const std::string second = first + "1";
    EXPECT_EQ(record(3, "/.tolvu1"), first);
    EXPECT_EQ(record(3, "/.tolvu"), first);
    EXPECT_EQ(record(2, "/.tolvu1"), first);
    EXPECT_EQ(record(2, "/.tolvu"), first);
    const auto withSecond = [&](std::int32_t state, const std::string& cowFile) {
        writeCowFile(one, ".tolvu1", 0);
        return record(state, cowFile);
    };
    EXPECT_EQ(withSecond(3, "/.tolvu1"), first);
    EXPECT_EQ(withSecond(3, "/.tolvu"), second);
    EXPECT_EQ(withSecond(2, "/.tolvu1"), second);
    EXPECT_EQ(withSecond(0, "/.tolvu1"), second);
    EXPECT_EQ(withSecond(2, "/.tolvu"), first);
}

} // namespace
} // namespace agent::core::backup
