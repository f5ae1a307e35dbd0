#include "support/FaultyDriverController.h"
#include "unit/core/backup/SnapshotSessionFixture.h"

namespace agent::core::backup {
namespace {

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
