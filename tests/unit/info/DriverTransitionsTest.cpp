#include "common/File.h"
#include "unit/info/DriverTransitionsFixture.h"

namespace agent::info {
namespace {

TEST_F(DriverTransitionsTest, FirstSnapshot) {
    EXPECT_TRUE(start());
    EXPECT_EQ(lines(),
              prefixed({unknown,
                        {level::debug, "start getUnusedMinor"},
                        {level::debug, "Next available minor: 0"},
                        {level::debug, "calling setup_snapshot for device: /dev/fake1, cowfile: " + a},
                        library("setup_snapshot 0 /dev/fake1 " + a + " 2048 0"),
                        {level::debug, "setup_snapshot successful for device: /dev/fake1 minor: 0"},
                        byMinor}));
    EXPECT_EQ(stateNow(), 3);
}

TEST_F(DriverTransitionsTest, FirstSnapshotTakesAFreeMinor) {
    driver.add({0, 2, "/.tolvu", "/dev/other", 0});
    EXPECT_TRUE(start());
    EXPECT_EQ(driver.calls(), std::vector<std::string>{"setup_snapshot 1 /dev/fake1 " + a + " 2048 0"});
}

TEST_F(DriverTransitionsTest, CowFileBelowTheRoot) {
    const BackupableVolume root = volumeOf("ext4", {"/"});
    EXPECT_TRUE(controller.startSnapshot(root, cowFileSize));
    EXPECT_EQ(driver.calls(), std::vector<std::string>{"setup_snapshot 0 /dev/fake1 /.tolvu 2048 0"});
}

TEST_F(DriverTransitionsTest, VolumeWithoutAMountPoint) {
    const BackupableVolume unmounted = volumeOf("ext4", {});
    recorder.clear();
    EXPECT_FALSE(controller.startSnapshot(unmounted, cowFileSize));
    EXPECT_EQ(
        recorder.lines(), // the table isn't even read
        prefixed({{level::error, "Backupable volume for device /dev/fake1 doesn't have a mountpoint."}}));
    EXPECT_FALSE(controller.revertOnFailure(volume)); // no starting state was recorded either
    EXPECT_TRUE(recorder.has(level::error, "Could not find starting state for volume: /dev/fake1"));
}

TEST_F(DriverTransitionsTest, CodeOfAFailedSetupIsTheDriversReason) {
    for (const auto& [error, code] : {std::pair{EOPNOTSUPP, "snapshot-unsupported"},
                                      std::pair{ENOSPC, "volume-full"}, std::pair{EIO, "snapshot-failed"}}) {
        recorder.clear();
        driver.outcomes["setup_snapshot"] = {.result = -1, .error = error, .times = 1};
        EXPECT_FALSE(start());
        EXPECT_EQ(recorder.codes(Reason::Kind::failure), (std::vector<std::string>{code, "snapshot-failed"}));
    }
}

TEST_F(DriverTransitionsTest, FailedSetup) {
    for (const int reason : reasons) {
        driver.outcomes["setup_snapshot"] = {.result = -1, .error = reason, .times = 1};
        EXPECT_FALSE(start());
        EXPECT_EQ(
            linesAbove(level::debug),
            (Lines{
                {level::info, std::string("SIZE ") + uuid + " 4097 ext4"},
                {level::error, "error from calling setup_snapshot for device: /dev/fake1 minor: 0 error: -1 "
                               "errno: " +
                                   std::to_string(reason)},
                {level::error,
                 "Unable to find device by minor: 0 after setup_snapshot/transition_snapshot: /dev/fake1"}}));
        EXPECT_EQ(driver.calls().size(), 1U);
    }
    EXPECT_TRUE(start()); // nothing was left behind
}

TEST_F(DriverTransitionsTest, FailedSetupThatLeavesADevice) {
    driver.outcomes["setup_snapshot"] = {.result = 5, .error = EIO, .times = 1, .moves = true};
    EXPECT_FALSE(start());
    EXPECT_EQ(
        lines().back(),
        (Line{level::error, "error on driver device after setup_snapshot/transition_snapshot for device: "
                            "/dev/fake1, minor: 0, error: 5, device error 0"}));
}

TEST_F(DriverTransitionsTest, SetupThatDoesNotEndInASnapshot) {
    for (const std::int32_t state : {0, 1, 2, 4, 5}) {
        driver.stateAfter = state;
        EXPECT_FALSE(start());
        EXPECT_EQ(
            lines().back(),
            (Line{level::error,
                  "driver device is not in active snapshot state after setup_snapshot/transition_snapshot "
                  "for device: /dev/fake1 minor: 0, state: " +
                      std::to_string(state) + ", device error 0"}));
        EXPECT_TRUE(controller.destroyDevice(volume));
    }
}

TEST_F(DriverTransitionsTest, SetupWithoutATableAfterwards) {
    hideTable();
    EXPECT_FALSE(start()); // no minor number can be chosen
    EXPECT_TRUE(driver.calls().empty());
    EXPECT_EQ(lines().back().text.substr(0, 43), "Unable to parse tolvubd info from : excepti");
}

TEST_F(DriverTransitionsTest, NextSnapshotsTakeTurns) {
    addDevice(2, "/.tolvu");
    test::writeFile(script(0), "old");
    EXPECT_TRUE(start());
    EXPECT_EQ(lines(),
              prefixed({found,
                        {level::debug,
                         "calling transition_snapshot for device: /dev/fake1, minor: 0, cowfile: " + b},
                        library("transition_snapshot 0 " + b + " 2048"),
                        {level::debug, "transition_snapshot successful for device: /dev/fake1 minor: 0"},
                        deleting,
                        byMinor}));
    EXPECT_FALSE(file::exists(script(0)));
    EXPECT_TRUE(controller.transitionToIncremental(volume));
    EXPECT_TRUE(start());
    EXPECT_EQ(driver.calls(), std::vector<std::string>{"transition_snapshot 0 " + a + " 2048"});
    EXPECT_EQ(driver.all().front().cow_file, "/.tolvu");
}

TEST_F(DriverTransitionsTest, MissingScriptIsAWarning) {
    addDevice(2);
    EXPECT_TRUE(start());
    EXPECT_EQ(recorder.count(unlinked.level, unlinked.text), 1);
}

TEST_F(DriverTransitionsTest, DeviceThatAReloadScriptHasGivenBack) {
    driver.add({4, 2, "/.tolvu1", std::string("/dev/disk/by-uuid/") + uuid, 0});
    EXPECT_TRUE(start());
    EXPECT_EQ(driver.calls(), std::vector<std::string>{"transition_snapshot 4 " + a + " 2048"});
}

/// If the next snapshot fails, the device can't be relied on to track changes, so it is destroyed.
TEST_F(DriverTransitionsTest, FailedNextSnapshotEndsTheTracking) {
    for (const int reason : reasons) {
        addDevice(2);
        test::writeFile(script(0), "old");
        driver.outcomes["transition_snapshot"] = {.result = -1, .error = reason, .times = 1};
        EXPECT_FALSE(start());
        EXPECT_EQ(
            lines(),
            prefixed(
                {found,
                 {level::debug,
                  "calling transition_snapshot for device: /dev/fake1, minor: 0, cowfile: " + b},
                 library("transition_snapshot 0 " + b + " 2048"),
                 {level::error,
                  "error from calling transition_snapshot for device: /dev/fake1 minor: 0 error: -1 errno: " +
                      std::to_string(reason)},
                 destroying,
                 destroyingMinor,
                 library("destroy 0"),
                 deleting,
                 deleting,
                 unknown,
                 forgotten,
                 byMinor,
                 notByMinor,
                 {level::error, "Unable to find device by minor: 0 after setup_snapshot/transition_snapshot: "
                                "/dev/fake1"}}));
        EXPECT_FALSE(file::exists(script(0)));
        EXPECT_TRUE(driver.all().empty());
    }
}

TEST_F(DriverTransitionsTest, FailedNextSnapshotOfADeviceThatStays) {
    addDevice(2);
    test::writeFile(script(0), "old");
    driver.outcomes["transition_snapshot"] = {.result = -1, .error = EIO};
    driver.outcomes["destroy"] = {.result = -2, .error = EBUSY};
    EXPECT_FALSE(start());
    EXPECT_EQ(linesAbove(level::info),
              (Lines{{level::error, "error from calling transition_snapshot for device: /dev/fake1 minor: 0 "
                                    "error: -1 errno: 5"},
                     {level::error, "error destroying minor: 0 error: -2 errno 16"},
                     notDestroyed,
                     {level::error, "error on driver device after setup_snapshot/transition_snapshot for "
                                    "device: /dev/fake1, minor: 0, error: -1, device error 0"}}));
    EXPECT_FALSE(file::exists(script(0)));
}

TEST_F(DriverTransitionsTest, NextSnapshotThatDoesNotEndInASnapshot) {
    addDevice(2);
    driver.stateAfter = 2;
    EXPECT_FALSE(start());
    EXPECT_EQ(
        lines().back(),
        (Line{level::error,
              "driver device is not in active snapshot state after setup_snapshot/transition_snapshot for "
              "device: /dev/fake1 minor: 0, state: 2, device error 0"}));
}

/// A device left over from a crashed run costs one backup; the next one starts afresh.
TEST_F(DriverTransitionsTest, DeviceThatIsNotTrackedIsDestroyed) {
    for (const std::int32_t state : {0, 1, 3, 4, 5}) {
        addDevice(state);
        test::writeFile(script(0), "old");
        EXPECT_FALSE(start());
        const bool scriptGoes = state == 0 || state == 4;
        Lines rest = {
            found,
            {level::error,
             "Existing driver entry for device /dev/fake1 with minor 0 is not incremental tracking, "
             "destroying and returning failure, current state " +
                 std::to_string(state)},
            destroying,
            destroyingMinor,
            library("destroy 0")};
        if (scriptGoes) {
            rest.push_back(deleting);
        }
        EXPECT_EQ(lines(), prefixed(rest));
        EXPECT_EQ(file::exists(script(0)), !scriptGoes) << state;
        EXPECT_TRUE(driver.all().empty());
    }
    EXPECT_TRUE(start());
}

TEST_F(DriverTransitionsTest, DeviceThatIsNotTrackedAndStays) {
    addDevice(3);
    driver.outcomes["destroy"] = {.result = -1, .error = EBUSY};
    EXPECT_FALSE(start());
    EXPECT_EQ(lines().back(), notDestroyed);
    EXPECT_EQ(stateNow(), 3);
}

/// Whichever call fails, and however often, the agent must be able to take a snapshot again afterwards.
TEST_F(DriverTransitionsTest, EveryCallFailing) {
    for (const char* call : {"setup_snapshot", "transition_snapshot", "transition_incremental", "destroy"}) {
        for (const bool moves : {false, true}) {
            driver.outcomes[call] = {.result = -1, .error = EIO, .moves = moves};
            for (int round = 0; round < 4; ++round) {
                static_cast<void>(start());
                static_cast<void>(controller.transitionToIncremental(volume));
            }
            driver.outcomes.clear();
            for (int round = 0; stateNow() != 3 && round < 2; ++round) {
                static_cast<void>(start());
            }
            EXPECT_EQ(stateNow(), 3) << call << moves;
            EXPECT_TRUE(controller.transitionToIncremental(volume));
            EXPECT_TRUE(controller.destroyDevice(volume));
        }
    }
}

} // namespace
} // namespace agent::info
