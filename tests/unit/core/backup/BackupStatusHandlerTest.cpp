#include "core/backup/BackupStatusHandler.h"

#include "support/RecordingLogger.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>
#include <thread>

namespace agent::core::backup {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class BackupStatusHandlerTest : public testing::Test {
protected:
    test::RecordingLogger log;
    std::chrono::system_clock::time_point now = std::chrono::system_clock::time_point(1000s);
    BackupStatusHandler status{log.logger, {"b", "a"}, [this] { return now; }};
};

TEST_F(BackupStatusHandlerTest, StartsActiveWithNothingKnown) {
    EXPECT_THAT(status.getVolumeStatuses(),
                ElementsAre(VolumeBackupStatus{"b", 0, 1, 0, -1}, VolumeBackupStatus{"a", 0, 1, 0, -1}));
    EXPECT_TRUE(status.isActive());
    EXPECT_FALSE(status.isFinished());
    EXPECT_FALSE(status.hasConnectionError());
    EXPECT_FALSE(status.hasSnapshotError());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(BackupStatusHandlerTest, SettersReachTheirVolumeOnly) {
    status.setVolumeState("a", VOLUME_FINISHED);
    status.setVolumeBackupType("a", FULL);
    status.setVolumeBytesTransferred("a", std::numeric_limits<std::uint64_t>::max());
    status.setVolumeTotalSize("a", std::numeric_limits<std::int64_t>::max());
    EXPECT_THAT(status.getVolumeStatuses(),
                ElementsAre(VolumeBackupStatus{"b"},
                            VolumeBackupStatus{"a", 2, 0, std::numeric_limits<std::uint64_t>::max(),
                                               std::numeric_limits<std::int64_t>::max()}));
}

TEST_F(BackupStatusHandlerTest, UnknownVolumeIsOneErrorLineAndNothingElse) {
    const auto before = status.getVolumeStatuses();
    const std::vector<std::function<void()>> setters = {
        [&] { status.setVolumeState("nowhere", VOLUME_FAILED); },
        [&] { status.setVolumeBackupType("nowhere", FULL); },
        [&] { status.setVolumeBytesTransferred("nowhere", 1); },
        [&] { status.setVolumeTotalSize("nowhere", 1); },
    };
    for (const auto& setter : setters) {
        log.clear();
        EXPECT_NO_THROW(setter());
        EXPECT_THAT(log.lines(), ElementsAre(test::RecordingLogger::Line{
                                     info::level::error, "Could not find status for nowhere"}));
    }
    EXPECT_EQ(status.getVolumeStatuses(), before);
}

TEST_F(BackupStatusHandlerTest, ActiveUntilTheLastVolumeHasEnded) {
    status.setVolumeState("a", VOLUME_FINISHED);
    EXPECT_TRUE(status.isActive());
    EXPECT_FALSE(status.isFinished());
    status.setVolumeState("b", VOLUME_FINISHED);
    EXPECT_FALSE(status.isActive());
    EXPECT_TRUE(status.isFinished());
}

TEST_F(BackupStatusHandlerTest, AllFailedIsNeitherActiveNorFinished) {
    status.setVolumeState("a", VOLUME_FINISHED);
    status.setAllVolumesFailed();
    EXPECT_FALSE(status.isActive());
    EXPECT_FALSE(status.isFinished());
    for (const VolumeBackupStatus& volume : status.getVolumeStatuses()) {
        EXPECT_EQ(volume.state, VOLUME_FAILED) << volume.uuid;
    }
    EXPECT_THAT(log.lines(),
                ElementsAre(test::RecordingLogger::Line{info::level::info, "Setting volume b to failed."},
                            test::RecordingLogger::Line{info::level::info, "Setting volume a to failed."}));
}

TEST_F(BackupStatusHandlerTest, BackupOfNoVolumesIsFinished) {
    const BackupStatusHandler none(log.logger, {});
    EXPECT_TRUE(none.isFinished());
    EXPECT_FALSE(none.isActive());
    EXPECT_THAT(none.getVolumeStatuses(), IsEmpty());
}

TEST_F(BackupStatusHandlerTest, ElapsedTimeIsInWholeSeconds) {
    EXPECT_EQ(status.getElapsedSeconds(), 0.0);
    now += 1999ms;
    EXPECT_EQ(status.getElapsedSeconds(), 1.0);
    now += 1ms;
    EXPECT_EQ(status.getElapsedSeconds(), 2.0);
    now += 100h;
    EXPECT_EQ(status.getElapsedSeconds(), 360002.0);
}

TEST_F(BackupStatusHandlerTest, ElapsedTimeFollowsAClockThatIsSetBack) {
    now -= 1h;
    EXPECT_EQ(status.getElapsedSeconds(), -3600.0);
}

TEST_F(BackupStatusHandlerTest, UsesTheSystemClockByItself) {
    const BackupStatusHandler real(log.logger, {"a"});
    EXPECT_GE(real.getElapsedSeconds(), 0.0);
    EXPECT_LT(real.getElapsedSeconds(), 3600.0);
}

TEST_F(BackupStatusHandlerTest, ErrorsStay) {
    status.setConnectionError();
    EXPECT_TRUE(status.hasConnectionError());
    EXPECT_FALSE(status.hasSnapshotError());
    status.setSnapshotError();
    status.setConnectionError();
    EXPECT_TRUE(status.hasConnectionError());
    EXPECT_TRUE(status.hasSnapshotError());
}

TEST_F(BackupStatusHandlerTest, StatusReplacesWhatItIsGiven) {
    BackupStatus out{99, true, false, {VolumeBackupStatus{"old"}}};
    status.setSnapshotError();
    status.setVolumeBytesTransferred("b", 4096);
    now += 5s;
    status.getStatus(out);
    EXPECT_EQ(out.elapsedSeconds, 5.0);
    EXPECT_FALSE(out.connectionError);
    EXPECT_TRUE(out.snapshotError);
    EXPECT_THAT(out.volumes, ElementsAre(VolumeBackupStatus{"b", 0, 1, 4096, -1}, VolumeBackupStatus{"a"}));
}

/// Every value that the writer stores has two equal halves, and progress only grows, so a torn or reordered
/// read of one field is detected.
void expectWholeValues(const VolumeBackupStatus& volume, std::uint64_t& lastBytes) {
    EXPECT_EQ(volume.bytesTransferred >> 32U, volume.bytesTransferred & 0xffffffffU);
    EXPECT_GE(volume.bytesTransferred, lastBytes);
    lastBytes = volume.bytesTransferred;
    EXPECT_TRUE(volume.totalSize == -1 || volume.totalSize == 0x0100000001000000) << volume.totalSize;
    EXPECT_LE(volume.state, VOLUME_FINISHED);
    EXPECT_LE(volume.backupType, DIFFERENTIAL_MERGE);
}

/// The backup's thread writes the status while HTTP threads read it, without waiting for one another.
TEST(BackupStatusHandlerThreads, ReadersSeeWholeValuesWhileTheBackupWrites) {
    test::RecordingLogger log;
    BackupStatusHandler status(log.logger, {"first", "second"});
    std::atomic<bool> done = false;
    std::vector<std::thread> readers;
    for (int reader = 0; reader < 3; ++reader) {
        readers.emplace_back([&] {
            std::uint64_t lastBytes = 0;
            bool sawError = false;
            while (!done) {
                BackupStatus seen;
                status.getStatus(seen);
                ASSERT_EQ(seen.volumes.size(), 2U);
                expectWholeValues(seen.volumes[1], lastBytes);
                EXPECT_FALSE(sawError && !seen.connectionError) << "an error was forgotten";
                sawError = seen.connectionError;
                EXPECT_TRUE(status.isActive()) << "the first volume stays active";
                EXPECT_FALSE(status.isFinished());
            }
        });
    }
    for (std::uint64_t step = 0; step < 20000; ++step) {
        status.setVolumeBytesTransferred("second", step << 32U | step);
        status.setVolumeTotalSize("second", step % 2 == 0 ? 0x0100000001000000 : -1);
        status.setVolumeBackupType("second", static_cast<std::uint32_t>(step % 3));
        status.setVolumeState("second", static_cast<std::uint32_t>(step % 3));
        if (step == 10000) {
            status.setConnectionError();
            status.setSnapshotError();
        }
    }
    done = true;
    for (std::thread& reader : readers) {
        reader.join();
    }
    EXPECT_EQ(status.getVolumeStatuses()[1].bytesTransferred, std::uint64_t{19999} << 32U | 19999U);
}

} // namespace
} // namespace agent::core::backup
