#include "common/File.h"
#include "unit/info/DriverTransitionsFixture.h"

#include <climits>

namespace agent::info {
namespace {

TEST_F(DriverTransitionsTest, BackToTracking) {
    addDevice(3, "/.tolvu1");
    recorder.clear();
    EXPECT_TRUE(controller.transitionToIncremental(volume));
    EXPECT_EQ(lines(),
              (Lines{{level::debug, "start transitionToIncremental for volume: /dev/fake1"},
                     {level::debug, "writing incremental reload script for dev /dev/fake1 minor 0"},
                     {level::info, "calling transition_incremental for device: /dev/fake1 minor: 0"},
                     library("transition_incremental 0"),
                     {level::debug, "transition_incremental successful for device: /dev/fake1 minor: 0"}}));
    EXPECT_EQ(stateNow(), 2);
    EXPECT_TRUE(file::exists(script(0)));
}

TEST_F(DriverTransitionsTest, NoDeviceToTransition) {
    recorder.clear();
    EXPECT_FALSE(controller.transitionToIncremental(volume));
    EXPECT_EQ(lines().back(),
              (Line{level::info, "Unable to find existing device /dev/fake1 to transition."}));
}

TEST_F(DriverTransitionsTest, OnlyASnapshotGoesBackToTracking) {
    for (const std::int32_t state : {0, 1, 2, 4, 5}) {
        addDevice(state);
        recorder.clear();
        EXPECT_FALSE(controller.transitionToIncremental(volume));
        EXPECT_EQ(lines().back(),
                  (Line{level::info, "driver device: /dev/fake1 minor: 0 is not in active snapshot "
                                     "state. Current state: " +
                                         std::to_string(state)}));
        EXPECT_TRUE(driver.calls().empty());
        EXPECT_TRUE(controller.destroyDevice(volume));
    }
}

TEST_F(DriverTransitionsTest, FailedTransitionToTracking) {
    driver.add({0, 3, "/.tolvu", device, -28});
    for (const int reason : reasons) {
        driver.outcomes["transition_incremental"] = {.result = -1, .error = reason, .times = 1};
        recorder.clear();
        EXPECT_FALSE(controller.transitionToIncremental(volume));
        EXPECT_EQ(
            linesAbove(level::info),
            (Lines{{level::error, "error from calling transition_incremental for device: /dev/fake1 minor: "
                                  "0 error: -1 errno: " +
                                      std::to_string(reason)},
                   {level::error, "error on driver device after transition_incremental failure for device: "
                                  "/dev/fake1 minor: 0 device error: -28"}}));
    }
    EXPECT_TRUE(controller.transitionToIncremental(volume));
}

/// A driver whose device disappears while a call fails.
class VanishingController : public test::FakeController {
public:
    explicit VanishingController(FakeDriver& driver) : FakeController(driver), driver(driver) {}
    std::int32_t transition_incremental(std::uint32_t minor) override {
        static_cast<void>(driver.destroy(minor));
        errno = ENODEV;
        return -1;
    }

private:
    FakeDriver& driver;
};

TEST_F(DriverTransitionsTest, DeviceThatVanishesInTheTransition) {
    addDevice(3);
    DriverController other(recorder.logger, std::make_unique<VanishingController>(driver),
                           [this] { return statusFiles; });
    recorder.clear();
    EXPECT_FALSE(other.transitionToIncremental(volume));
    EXPECT_EQ(linesAbove(level::warning).back(),
              (Line{level::error, "Unable to find device by minor 0 after transition_incremental failure."}));
}

TEST_F(DriverTransitionsTest, DeviceThatIsNotTrackedHasNoReloadScript) {
    addDevice(3);
    driver.outcomes["transition_incremental"] = {-1, EIO};
    EXPECT_FALSE(controller.transitionToIncremental(volume));
    EXPECT_FALSE(file::exists(script(0)));
}

TEST_F(DriverTransitionsTest, RevertOfAVolumeThatWasNotTracked) {
    ASSERT_TRUE(start());
    recorder.clear();
    EXPECT_TRUE(controller.revertOnFailure(volume));
    EXPECT_EQ(lines(), (Lines{{level::debug, "start revertOnFailure for volume: /dev/fake1"},
                              {level::debug, "Did not have a previous incremental, destroying"},
                              destroying,
                              destroyingMinor,
                              library("destroy 0")}));
    EXPECT_TRUE(driver.all().empty());
}

TEST_F(DriverTransitionsTest, RevertOfAVolumeThatWasTracked) {
    addDevice(2);
    ASSERT_TRUE(start());
    recorder.clear();
    EXPECT_TRUE(controller.revertOnFailure(volume));
    EXPECT_EQ(lines(), (Lines{{level::debug, "start revertOnFailure for volume: /dev/fake1"},
                              {level::debug, "Had a previous incremental, not destroying device"}}));
    EXPECT_EQ(stateNow(), 3);
}

TEST_F(DriverTransitionsTest, RevertWorksOnce) {
    ASSERT_TRUE(start());
    EXPECT_TRUE(controller.revertOnFailure(volume));
    recorder.clear();
    EXPECT_FALSE(controller.revertOnFailure(volume));
    EXPECT_EQ(lines(), (Lines{{level::debug, "start revertOnFailure for volume: /dev/fake1"},
                              {level::error, "Could not find starting state for volume: /dev/fake1"}}));
}

TEST_F(DriverTransitionsTest, RevertKeepsTheStartingStateOfADeviceThatCannotBeSeen) {
    addDevice(2);
    ASSERT_TRUE(start());
    hideTable();
    recorder.clear();
    EXPECT_FALSE(controller.revertOnFailure(volume));
    EXPECT_EQ(lines().back(), (Line{level::error, "Could not get device info for volume: /dev/fake1"}));
    driver.show();
    EXPECT_TRUE(controller.revertOnFailure(volume));
}

TEST_F(DriverTransitionsTest, RevertThatCannotDestroy) {
    ASSERT_TRUE(start());
    driver.outcomes["destroy"] = {.result = -1, .error = EBUSY};
    EXPECT_FALSE(controller.revertOnFailure(volume));
    EXPECT_EQ(lines().back(), (Line{level::error, "error destroying minor: 0 error: -1 errno 16"}));
}

TEST_F(DriverTransitionsTest, NewStartReplacesTheStartingState) {
    ASSERT_TRUE(start());
    ASSERT_TRUE(controller.transitionToIncremental(volume));
    ASSERT_TRUE(start());
    EXPECT_TRUE(controller.revertOnFailure(volume)); // the device was tracked at the last start
    EXPECT_EQ(stateNow(), 3);
}

TEST_F(DriverTransitionsTest, DestroyingNothing) {
    recorder.clear();
    EXPECT_FALSE(controller.destroyDevice(volume));
    EXPECT_EQ(lines(),
              (Lines{destroying, unknown, {level::error, "Unable to find device for destroy: /dev/fake1"}}));
}

TEST_F(DriverTransitionsTest, ScriptOfADestroyedDeviceGoesUnlessItWasALiveSnapshot) {
    for (const std::int32_t state : {0, 1, 2, 3, 4, 5}) {
        addDevice(state);
        test::writeFile(script(0), "old");
        EXPECT_TRUE(controller.destroyDevice(volume));
        EXPECT_EQ(file::exists(script(0)), state % 2 == 1) << state;
    }
}

TEST_F(DriverTransitionsTest, FailedDestroyKeepsDeviceAndScript) {
    addDevice(2);
    test::writeFile(script(0), "kept");
    for (const int reason : reasons) {
        driver.outcomes["destroy"] = {.result = INT_MIN, .error = reason, .times = 1};
        recorder.clear();
        EXPECT_FALSE(controller.destroyDevice(volume));
        EXPECT_EQ(lines().back(), (Line{level::error, "error destroying minor: 0 error: -2147483648 errno " +
                                                          std::to_string(reason)}));
        EXPECT_TRUE(file::exists(script(0)));
    }
    EXPECT_TRUE(controller.destroyDevice(volume));
    EXPECT_FALSE(file::exists(script(0)));
}

} // namespace
} // namespace agent::info
