#include "common/File.h"
#include "support/DeniedSystemCall.h"
#include "unit/info/DriverHistoryFixture.h"

#include <filesystem>

namespace agent::info {
namespace {

using test::readFile;
using test::writeFile;

TEST_F(DriverHistoryTest, CowFilesTakeTurns) {
    DriverDeviceInfo from;
    std::string out;
    for (const auto& [name, next] : std::vector<std::pair<std::string, std::string>>{
             {"/.tolvu", "/.tolvu1"}, {"/.tolvu1", "/.tolvu"}, {"/x11", "/x1"}, {"1", ""}, {"a", "a1"}}) {
        from.cow_file = name;
        EXPECT_TRUE(controller.calculateCowFile(from, out));
        EXPECT_EQ(out, next);
    }
    from.cow_file.clear();
    out = "kept";
    EXPECT_FALSE(controller.calculateCowFile(from, out));
    EXPECT_EQ(out, "kept");
    EXPECT_TRUE(recorder.has(level::error, "calculate cow file got an empty cow file string."));
}

TEST_F(DriverHistoryTest, IsBelowTheFirstMountPoint) {
    EXPECT_EQ(controller.getIncrementalHistoryPath(volume), history);
    EXPECT_EQ(controller.getIncrementalHistoryPath(volumeOf("ext4", {"/"})), "/.tolvu.inc");
    EXPECT_EQ(controller.getIncrementalHistoryPath(volumeOf("ext4", {})), "");
}

TEST_F(DriverHistoryTest, PresenceAndRemoval) {
    EXPECT_FALSE(controller.hasIncrementalHistory(volume));
    controller.removeIncrementalHistory(volume); // not an error if there is no history
    writeFile(history, "x");
    EXPECT_TRUE(controller.hasIncrementalHistory(volume));
    controller.removeIncrementalHistory(volume);
    EXPECT_FALSE(controller.hasIncrementalHistory(volume));
    ASSERT_EQ(::symlink("nowhere", history.c_str()), 0);
    EXPECT_TRUE(controller.hasIncrementalHistory(volume));
    const BackupableVolume unmounted = volumeOf("ext4", {});
    EXPECT_FALSE(controller.hasIncrementalHistory(unmounted));
    controller.removeIncrementalHistory(unmounted);
}

TEST_F(DriverHistoryTest, NothingIsOwedAfterSuccess) {
    writeFile(currentCowFile, contentOf({1, 2, 3, 4}, 5));
    writeFile(history, std::string(20'000, 'x'));
    EXPECT_TRUE(make(true));
    EXPECT_EQ(readFile(history), contentOf({0, 0}, 5)); // the table of a volume of 4097 bytes has 16 bytes
    EXPECT_EQ(problems(), Lines());
    EXPECT_EQ(file::status(history).st_mode & 07777, 0644U); // the mode of the existing file stays
}

TEST_F(DriverHistoryTest, EverythingIsOwedAfterFailure) {
    writeFile(currentCowFile, contentOf({9, 9, 9}));
    writeFile(closedCowFile, contentOf({1, 2, 3, 4}, 6));
    EXPECT_TRUE(make(false));
    EXPECT_EQ(readFile(history), contentOf({1, 2}, 6));
    EXPECT_EQ(file::status(history).st_mode & 07777, 0600U);
}

TEST_F(DriverHistoryTest, TableSizes) {
    writeFile(closedCowFile, contentOf(pattern(8, 1)));
    const std::vector<std::pair<std::uint64_t, std::uint64_t>> sizes = {
        {0, 0}, {1, 8}, {4095, 8}, {4096, 8}, {4097, 16}, {8192, 16}, {8193, 24}};
    for (const auto& [size, bytes] : sizes) {
        EXPECT_TRUE(make(false, size));
        EXPECT_EQ(readFile(history), readFile(closedCowFile).substr(0, headerBytes + bytes)) << size;
    }
}

/// Tables whose sizes are around the size of the pieces in which they are copied.
TEST_F(DriverHistoryTest, CopiesAndMergesInPieces) {
    for (const std::int64_t beyond : {-8, 0, 8, 4096}) {
        const std::uint64_t tableBytes = pieceBytes + static_cast<std::uint64_t>(beyond);
        const std::uint64_t size = tableBytes / 8 * 4096;
        const std::vector<std::uint64_t> owed = pattern(tableBytes / 8 + 5, 3);
        writeFile(closedCowFile, contentOf(owed));
        writeFile(currentCowFile, contentOf(owed));
        ASSERT_TRUE(make(false, size));
        EXPECT_TRUE(readFile(history) == contentOf(owed).substr(0, headerBytes + tableBytes)) << beyond;

        std::vector<std::uint64_t> changed = pattern(tableBytes / 8 + 5, 11);
        writeFile(closedCowFile, contentOf(changed, 9));
        ASSERT_TRUE(roll(size));
        for (std::size_t index = 0; index < tableBytes / 8; ++index) {
            changed[index] |= owed[index];
        }
        EXPECT_TRUE(readFile(closedCowFile) == contentOf(changed, 9))
            << beyond; // the bytes after the table stay unchanged

        ASSERT_TRUE(make(true, size));
        EXPECT_TRUE(readFile(history) == contentOf(std::vector<std::uint64_t>(tableBytes / 8))) << beyond;
        ASSERT_TRUE(roll(size));
        EXPECT_TRUE(readFile(closedCowFile) == contentOf(changed, 9)) << beyond;
    }
}

TEST_F(DriverHistoryTest, MergeSaysThatItHasWorked) {
    writeFile(closedCowFile, contentOf({1, 0}));
    writeFile(history, contentOf({4, 8}, 99));
    EXPECT_TRUE(roll());
    EXPECT_EQ(readFile(closedCowFile), contentOf({5, 8}));
    EXPECT_EQ(readFile(history), contentOf({4, 8}, 99));
    EXPECT_EQ(lines().back(), (Line{level::debug, "Successfully merged incremental history"}));
}

TEST_F(DriverHistoryTest, WhatIsOwedPilesUpOverFailedBackups) {
    writeFile(currentCowFile, contentOf({0, 0}));
    writeFile(closedCowFile, contentOf({1, 0}));
    ASSERT_TRUE(make(false)); // the first backup has failed
    writeFile(closedCowFile, contentOf({2, 0}));
    ASSERT_TRUE(roll());
    ASSERT_TRUE(make(false)); // the second has failed, too
    EXPECT_EQ(readFile(history), contentOf({3, 0}));
}

TEST_F(DriverHistoryTest, WithoutAMountPoint) {
    const BackupableVolume unmounted = volumeOf("ext4", {});
    const Line line{level::error, "Backupable volume for device /dev/fake1 doesn't have a mountpoint."};
    EXPECT_FALSE(controller.makeHistory(unmounted, true));
    EXPECT_FALSE(controller.rollForward(unmounted));
    EXPECT_EQ(problems(), (Lines{line, line}));
}

TEST_F(DriverHistoryTest, WithoutADevice) {
    ASSERT_TRUE(controller.destroyDevice(volume));
    EXPECT_FALSE(make(true));
    EXPECT_EQ(problems(),
              (Lines{{level::error, "Cannot create incremental history, device does not exist"}}));
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(), (Lines{{level::error, "Cannot roll forward, device does not exist"}}));
}

TEST_F(DriverHistoryTest, CowFileOfWhichNoOtherCanBeMade) {
    ASSERT_TRUE(controller.destroyDevice(volume));
    addDevice(3, "1");
    EXPECT_FALSE(make(false));
    EXPECT_EQ(problems(),
              (Lines{{level::error, "Unable to make a new cow file name from existing device: 1"}}));
}

TEST_F(DriverHistoryTest, MergeThatEndsInTheSecondPiece) {
    const std::uint64_t entries = pieceBytes / 8 + 2;
    const std::vector<std::uint64_t> owed(entries, 4);
    writeFile(closedCowFile, contentOf(std::vector<std::uint64_t>(entries, 1)));
    writeFile(history, contentOf(owed).substr(0, headerBytes + pieceBytes + 8));
    EXPECT_FALSE(roll(entries * 4096));
    std::vector<std::uint64_t> merged(entries, 5);
    merged[entries - 2] = merged[entries - 1] = 1;
    EXPECT_TRUE(readFile(closedCowFile) == contentOf(merged));
}

/// Gigabytes of zeros must be allocated without being written, and merged without being read or written.
TEST_F(DriverHistoryTest, OwingNothingCostsNothing) {
    const std::uint64_t entries = pieceBytes / 8 * 2 + 2;
    const std::vector<std::uint64_t> table(entries, 1);
    writeFile(closedCowFile, contentOf(table));
    writeFile(currentCowFile, contentOf(table));
    EXPECT_TRUE(make(true, entries * 4096));
    EXPECT_TRUE(readFile(history) == contentOf(std::vector<std::uint64_t>(entries)));
    EXPECT_GE(static_cast<std::uint64_t>(file::status(history).st_blocks) * 512, headerBytes + entries * 8);
    EXPECT_TRUE(inChild([&] {
        test::denySystemCall(SYS_write, EIO);
        const std::uint64_t before = bytesReadSoFar();
        return roll(entries * 4096) && bytesReadSoFar() - before < pieceBytes;
    }));
    EXPECT_TRUE(readFile(closedCowFile) == contentOf(table));
}

TEST_F(DriverHistoryTest, ZerosAreWrittenWhereNoSpaceCanBeSetAside) {
    const std::uint64_t entries = pieceBytes / 8 + 2;
    writeFile(currentCowFile, contentOf(std::vector<std::uint64_t>(entries, 1)));
    EXPECT_TRUE(inChild([&] {
        test::denySystemCall(SYS_fallocate, EOPNOTSUPP);
        return make(true, entries * 4096);
    }));
    EXPECT_TRUE(readFile(history) == contentOf(std::vector<std::uint64_t>(entries)));
}

TEST_F(DriverHistoryTest, MergeWritesNothingThatIsThere) {
    writeFile(closedCowFile, contentOf({5, 2}));
    writeFile(history, contentOf({4, 0}));
    EXPECT_TRUE(inChild([&] {
        test::denySystemCall(SYS_write, EIO);
        return roll();
    }));
    EXPECT_EQ(readFile(closedCowFile), contentOf({5, 2}));
}

/// The owed blocks are between two pieces that are holes.
TEST_F(DriverHistoryTest, MergesWhatLiesBetweenHoles) {
    const std::uint64_t piece = pieceBytes / 8;
    std::vector<std::uint64_t> table(3 * piece, 1);
    writeFile(closedCowFile, contentOf(table));
    writeFile(currentCowFile, contentOf({}));
    EXPECT_TRUE(make(true, table.size() * 4096));
    const std::uint64_t owed = 6;
    std::fstream(history, std::ios::in | std::ios::out | std::ios::binary)
        .seekp(static_cast<std::streamoff>(headerBytes + (piece + 3) * 8))
        .write(static_cast<const char*>(static_cast<const void*>(&owed)), sizeof owed);
    EXPECT_TRUE(roll(table.size() * 4096));
    table[piece + 3] = 7;
    EXPECT_TRUE(readFile(closedCowFile) == contentOf(table));
}

TEST_F(DriverHistoryTest, ATableThatBreaksOffIsFoundOutThoughNothingIsOwed) {
    writeFile(currentCowFile, contentOf({1, 2}));
    EXPECT_TRUE(make(true));
    writeFile(closedCowFile, contentOf({1, 2}).substr(0, headerBytes + 15));
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(), (Lines{{level::error, "Unable to read from incremental file " + closedCowFile +
                                                    ": No data available"}}));
    std::filesystem::resize_file(history, headerBytes + 15);
    writeFile(closedCowFile, contentOf({1, 2}));
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(), (Lines{{level::error, "Unable to read from incremental history file " + history +
                                                    ": No data available"}}));
}

} // namespace
} // namespace agent::info
