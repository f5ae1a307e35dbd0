#include "common/PosixError.h"
#include "support/FaultyDriverController.h"
#include "unit/core/backup/SnapshotSessionFixture.h"

namespace agent::core::backup {
namespace {

using info::level::debug;
using info::level::error;
using info::level::warning;
using test::messageOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

constexpr const char* noDevice = "Unable to determine incremental bitmap file name. No device available.";

class SnapshotSessionControlTest : public SnapshotSessionFixture {
protected:
    /// The message of the failure to end the session of volumes of which one has no device.
    std::string endFailure(const SnapshotSessionControl::Volumes& volumes) {
        return messageOf<std::runtime_error>([&] { control->transitionToIncremental(volumes, false); });
    }
};

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

/// Each call to the driver fails in turn, in a session of each type whose backup then fails.
class EveryFailingDriverCall : public SnapshotSessionFixture,
                               public testing::WithParamInterface<std::uint32_t> {
protected:
    /// A session of a tracked volume. False if the failing call wasn't reached.
    bool run(int call) {
        volume = makeVolume(one);
        driver->calls.clear();
        driver->devices.clear();
        track(one);
        test::FailingCall failing(call);
        control = std::make_unique<SnapshotSessionControl>(
            log.logger, sizes, std::make_unique<test::FaultyDriverController>(fake, failing), extension);
        attempt([&] { start({volume}, GetParam()); });
        attempt([&] { control->transitionToIncremental({volume}, false); });
        return failing.hasHappened();
    }

    [[nodiscard]] bool isTracked() const {
        const auto device = driver->devices.find(one);
        return device != driver->devices.end() && device->second.state == info::driver_state::tracking;
    }

    [[nodiscard]] bool hasDone(const std::string& call) const {
        return std::find(driver->calls.begin(), driver->calls.end(), call + " " + one) != driver->calls.end();
    }

    std::shared_ptr<TestVolume> volume;
    test::FakeDriverController fake;

private:
    template <typename Step>
    static void attempt(const Step& step) {
        try {
            step();
        } catch (const std::runtime_error&) { // NOLINT(bugprone-empty-catch): what it leaves is looked at
        }
    }
};

TEST_P(EveryFailingDriverCall, TracksOnlyWhatIsStillOwed) {
    driver = &fake;
    int tracked = 0;
    for (int call = 1; run(call); ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        if (isTracked() && hasDone("startSnapshot")) {
            ++tracked;
            EXPECT_TRUE(hasDone("rollForward"));
            EXPECT_TRUE(hasDone("makeHistory"));
        }
    }
    EXPECT_TRUE(isTracked()); // after the run in which no call failed
    EXPECT_TRUE(hasDone("rollForward"));
    EXPECT_TRUE(hasDone("makeHistory"));
    EXPECT_GT(tracked, 0);
}

INSTANTIATE_TEST_SUITE_P(Types, EveryFailingDriverCall,
                         testing::Values(std::uint32_t{FULL}, std::uint32_t{INCREMENTAL},
                                         std::uint32_t{DIFFERENTIAL_MERGE}));

} // namespace
} // namespace agent::core::backup
