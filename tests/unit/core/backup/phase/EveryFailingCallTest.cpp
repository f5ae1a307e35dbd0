#include "support/FaultyTransport.h"
#include "unit/core/backup/phase/BackupOfVolumesFixture.h"

#include <gmock/gmock.h>

#include <tuple>

namespace agent::core::backup::phase {
namespace {

using testing::ElementsAre;

/// Each call to the target fails in turn, in a backup of each type. Reads and writes fail with -1 or with 0.
/// A full backup also punches holes.
class EveryFailingCall : public BackupOfVolumes,
                         public testing::WithParamInterface<std::tuple<std::uint32_t, std::int64_t>> {
protected:
    EveryFailingCall() {
        source.change({12, 500, 1400, 3000});
        recordChanges("a", {12, 500, 1400, 3000});
        harness.config.enabled = type == FULL;
        request(type);
    }

    /// A backup onto the image of the last one. False if the failing call wasn't reached.
    bool runFailing(int call) {
        targets["a"] = std::make_shared<WatchedTransport>(last);
        targets["a"]->holePunching = true;
        database.provider.setVolumeChecksum("a", lastChecksum, db::ChecksumType::libcrc32c);
        std::shared_ptr<test::FaultyTransport> faulty;
        connect = [&](const auto& target) {
            faulty = std::make_shared<test::FaultyTransport>(target, call, failure);
            return faulty;
        };
        run();
        return faulty->hasFailed();
    }

    /// Once the backup may have written something, the stored checksum must be withdrawn, so that the next
    /// backup compares the image. An incremental backup keeps it, since the next backup also copies what this
    /// one should have copied.
    void expectNothingVouchedFor() {
        EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
        const bool isUntouched = targets["a"]->image == last;
        if (type == INCREMENTAL) {
            EXPECT_EQ(database.storedChecksum("a"), lastChecksum);
        } else if (!isUntouched) {
            EXPECT_EQ(database.storedChecksum("a"), 0U);
        }
    }

    void expectWholeImage() {
        EXPECT_TRUE(source.holdsUsedBlocks(targets["a"]->image));
        EXPECT_NE(database.storedChecksum("a"), lastChecksum);
        EXPECT_EQ(status().volumes.front().backupType, type);
    }

    const std::uint32_t type = std::get<0>(GetParam());
    const std::int64_t failure = std::get<1>(GetParam());
    test::ExtVolume& source = add("a");
    const Image last = source.image;
    const std::uint32_t lastChecksum = [this] {
        targets["a"]->image = last;
        return checksumOf("a");
    }();
};

TEST_P(EveryFailingCall, BackupIsFinishedOnlyWithTheWholeImage) {
    int finishedAllTheSame = 0;
    for (int call = 1; runFailing(call); ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        if (backup->isFinished()) {
            ++finishedAllTheSame;
            expectWholeImage();
        } else {
            expectNothingVouchedFor();
        }
    }
    EXPECT_TRUE(backup->isFinished()); // the run in which no call failed
    expectWholeImage();
    EXPECT_EQ(database.storedChecksum("a"), checksumOf("a"));
    // The seek and the punch of each hole: a failed punch only costs space.
    EXPECT_EQ(finishedAllTheSame, type == FULL ? 2 * 4 : 0);
}

INSTANTIATE_TEST_SUITE_P(Types, EveryFailingCall,
                         testing::Combine(testing::Values(std::uint32_t{FULL}, std::uint32_t{INCREMENTAL},
                                                          std::uint32_t{DIFFERENTIAL_MERGE}),
                                          testing::Values(-1, 0)));

/// Each call to the database fails in turn, in a backup of each type. A finished backup has a whole image,
/// and the next incremental backup repairs a failed one, whatever type it becomes.
class EveryFailingDatabaseCall : public BackupOfVolumes, public testing::WithParamInterface<std::uint32_t> {
protected:
    /// A backup of the changes since the last whole image. False if the failing call wasn't reached.
    bool runFailing(int call) {
        targets["a"] = std::make_shared<WatchedTransport>(Image(source.image));
        database.provider.setVolumeChecksum("a", checksumOf("a"), db::ChecksumType::libcrc32c);
        source.change({12, 500, 1400, 3000});
        recordChanges("a", {12, 500, 1400, 3000});
        request(GetParam());
        harness.store.failAt(call);
        run();
        const bool hasFailed = harness.store.hasFailed();
        harness.store.failAt(0);
        return hasFailed;
    }

    void expectWholeImage() {
        EXPECT_TRUE(source.holdsUsedBlocks(targets["a"]->image));
        EXPECT_EQ(database.storedChecksum("a"), checksumOf("a"));
    }

    test::ExtVolume& source = add("a");
};

TEST_P(EveryFailingDatabaseCall, LeavesNoWrongImage) {
    int failed = 0;
    for (int call = 1; runFailing(call); ++call) {
        SCOPED_TRACE("call " + std::to_string(call));
        if (!backup->isFinished()) {
            ++failed;
            EXPECT_THAT(states(), ElementsAre(VOLUME_FAILED));
            request(INCREMENTAL);
            run();
            EXPECT_TRUE(backup->isFinished());
        }
        expectWholeImage();
    }
    EXPECT_GT(failed, 0); // storing the new checksum fails
    expectWholeImage();   // from the run in which no call failed
}

INSTANTIATE_TEST_SUITE_P(Types, EveryFailingDatabaseCall,
                         testing::Values(std::uint32_t{FULL}, std::uint32_t{INCREMENTAL},
                                         std::uint32_t{DIFFERENTIAL_MERGE}));

} // namespace
} // namespace agent::core::backup::phase
