#include "common/File.h"
#include "support/DeniedSystemCall.h"
#include "support/TmpfsMount.h"
#include "unit/info/CowImage.h"
#include "unit/info/DriverFixture.h"

#include <filesystem>
#include <fstream>
#include <functional>
#include <sys/stat.h>

namespace agent::info {
namespace {

using test::CowImage;
using test::readFile;
using test::writeFile;

constexpr std::uint64_t pieceBytes = std::uint64_t{8} << 20U;
constexpr std::uint64_t headerBytes = 4096;

/// A table with few bits set that differs for each entry and each seed.
std::vector<std::uint64_t> pattern(std::size_t entries, std::uint64_t seed) {
    std::vector<std::uint64_t> table(entries);
    for (std::size_t index = 0; index < entries; ++index) {
        table[index] = (index + seed) * 0x9e3779b97f4a7c15ULL & (index * seed + 0x1111111111111111ULL * seed);
    }
    return table;
}

std::string contentOf(const std::vector<std::uint64_t>& table, std::uint64_t version = 3) {
    return CowImage{.version = version, .changedBlocks = 7, .table = table}.bytes();
}

/// The bytes that this process has read, with any system call.
std::uint64_t bytesReadSoFar() {
    std::string name;
    std::uint64_t bytes = 0;
    std::ifstream("/proc/self/io") >> name >> bytes;
    return name == "rchar:" ? bytes : 0;
}

/// The device is in the snapshot state, with /.tolvu1 as its current CoW file. /.tolvu is closed and holds
/// the changed blocks.
class DriverHistoryTest : public test::DriverFixture {
protected:
    DriverHistoryTest() { addDevice(3, "/.tolvu1"); }

    bool make(bool zeroFill, std::uint64_t size = twoEntries) {
        recorder.clear();
        return controller.makeHistory(volumeOf("ext4", {mountPoint, "/other"}, size), zeroFill);
    }
    bool roll(std::uint64_t size = twoEntries) {
        recorder.clear();
        return controller.rollForward(volumeOf("ext4", {mountPoint, "/other"}, size));
    }

    [[nodiscard]] Lines problems() const { return linesAbove(level::info); }

    /// Runs `step` in a child process, where system calls may be denied. Returns what it returns.
    static bool inChild(const std::function<bool()>& step) {
        const pid_t child = ::fork();
        if (child == 0) {
            ::_exit(step() ? 0 : 1);
        }
        int status = -1;
        ::waitpid(child, &status, 0);
        return status == 0;
    }

    static constexpr std::uint64_t twoEntries = 4097;

    const std::string currentCowFile = mountPoint + "/.tolvu1";
    const std::string closedCowFile = mountPoint + "/.tolvu";
    const std::string history = mountPoint + "/.tolvu.inc";
};

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

TEST_F(DriverHistoryTest, FilesThatCannotBeOpened) {
    EXPECT_FALSE(make(true));
    const Line noSource{level::error,
                        "Cannot make history, cannot open incremental file: No such file or directory"};
    EXPECT_EQ(problems(), Lines{noSource});
    writeFile(currentCowFile, contentOf({1, 2}));
    EXPECT_FALSE(make(false)); // the closed file is needed
    EXPECT_EQ(problems(), Lines{noSource});
    EXPECT_FALSE(file::exists(history));
    std::filesystem::create_directory(history);
    EXPECT_FALSE(make(true));
    EXPECT_EQ(problems(),
              (Lines{{level::error, "Cannot make history, cannot open incremental history file: Is a "
                                    "directory"}}));
}

TEST_F(DriverHistoryTest, FilesThatCannotBeOpenedForTheMerge) {
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(), (Lines{{level::error, "Cannot roll forward, cannot open incremental history file " +
                                                    history + ": No such file or directory"}}));
    writeFile(history, contentOf({1, 2}));
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(), (Lines{{level::error, "Cannot roll forward, cannot open incremental file " +
                                                    closedCowFile + ": No such file or directory"}}));
}

/// A user who may write to the root of a volume must not be able to make the agent write elsewhere or block.
TEST_F(DriverHistoryTest, LinksAreNotFollowed) {
    writeFile(currentCowFile, contentOf({1, 2}));
    writeFile(mountPoint + "/victim", "untouched");
    ASSERT_EQ(::symlink("victim", history.c_str()), 0);
    EXPECT_FALSE(make(true));
    EXPECT_EQ(problems().back().text,
              "Cannot make history, cannot open incremental history file: Too many levels of symbolic links");
    EXPECT_EQ(readFile(mountPoint + "/victim"), "untouched");
    std::filesystem::remove(history);
    writeFile(history, contentOf({1, 2}));
    ASSERT_EQ(::symlink("victim", closedCowFile.c_str()), 0);
    EXPECT_FALSE(roll());
    EXPECT_EQ(readFile(mountPoint + "/victim"), "untouched");
}

TEST_F(DriverHistoryTest, PipesDoNotBlock) {
    ASSERT_EQ(::mkfifo(currentCowFile.c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(history.c_str(), 0600), 0);
    ASSERT_EQ(::mkfifo(closedCowFile.c_str(), 0600), 0);
    EXPECT_FALSE(make(true));
    EXPECT_EQ(problems(),
              (Lines{{level::error, "Cannot make history, cannot open incremental history file: No "
                                    "such device or address"}}));
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(), // of the history: the two messages are swapped
              (Lines{{level::error, "Cannot seek past header in incremental file: Illegal seek"}}));
    std::filesystem::remove(history);
    writeFile(history, contentOf({1, 2}));
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(),
              (Lines{{level::error, "Cannot seek past header in incremental history file: Illegal seek"}}));
    std::filesystem::remove(history);
    EXPECT_FALSE(make(true));
    EXPECT_EQ(problems(), (Lines{{level::error, "Unable to read from incremental file " + currentCowFile +
                                                    ": No data available"}}));
}

TEST_F(DriverHistoryTest, DirectoryInPlaceOfASource) {
    std::filesystem::create_directory(closedCowFile);
    EXPECT_FALSE(make(false));
    EXPECT_EQ(problems(), (Lines{{level::error, "Unable to read from incremental file " + closedCowFile +
                                                    ": Is a directory"}}));
    writeFile(history, contentOf({1, 2}));
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems(), (Lines{{level::error, "Cannot roll forward, cannot open incremental file " +
                                                    closedCowFile + ": Is a directory"}}));
}

/// A history must never be reported as complete if it has less than the source should have had.
TEST_F(DriverHistoryTest, EveryTruncationOfTheSource) {
    const std::string whole = contentOf({1, 2});
    for (std::size_t length = 0; length <= whole.size(); length += length < 4080 ? 510 : 1) {
        writeFile(closedCowFile, whole.substr(0, length));
        writeFile(currentCowFile, whole.substr(0, length));
        const bool complete = length == whole.size();
        EXPECT_EQ(make(false), complete) << length;
        EXPECT_EQ(problems().empty(), complete) << length;
        EXPECT_EQ(make(true), length >= headerBytes) << length; // only the header comes from the source
    }
}

/// A merge that is cut short may have added blocks but never removed any.
TEST_F(DriverHistoryTest, EveryTruncationForTheMerge) {
    const std::string owed = contentOf({4, 8});
    const std::string changed = contentOf({1, 2});
    for (std::size_t length = 0; length < owed.size(); length += length < 4080 ? 510 : 1) {
        writeFile(closedCowFile, changed);
        writeFile(history, owed.substr(0, length));
        EXPECT_FALSE(roll()) << length;
        EXPECT_EQ(problems(), (Lines{{level::error, "Unable to read from incremental history file " +
                                                        history + ": No data available"}}));
        EXPECT_EQ(readFile(closedCowFile), changed);
        writeFile(closedCowFile, changed.substr(0, length));
        writeFile(history, owed);
        EXPECT_FALSE(roll()) << length;
        EXPECT_EQ(problems(), (Lines{{level::error, "Unable to read from incremental file " + closedCowFile +
                                                        ": No data available"}}));
        EXPECT_EQ(readFile(closedCowFile), changed.substr(0, length)); // it doesn't grow
    }
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

/// If the volume is full, the history is missing, but nothing else is damaged.
TEST_F(DriverHistoryTest, FullVolume) {
    const test::TmpfsMount full(mountPoint, "size=96k");
    const std::vector<std::uint64_t> table(3072, 1); // 28 KiB with the header
    const std::uint64_t size = table.size() * 4096;
    writeFile(closedCowFile, contentOf(table));
    writeFile(currentCowFile, contentOf(table));
    writeFile(mountPoint + "/ballast", std::string(20UL * 1024, 'x'));
    for (const bool zeroFill : {false, true}) {
        EXPECT_FALSE(make(zeroFill, size));
        EXPECT_EQ(problems(), (Lines{{level::error, "Unable to write to incremental history file " + history +
                                                        ": No space left on device"}}));
        EXPECT_TRUE(readFile(closedCowFile) == contentOf(table));
        EXPECT_TRUE(readFile(currentCowFile) == contentOf(table));
    }
    std::filesystem::remove(mountPoint + "/ballast");
    EXPECT_TRUE(make(false, size));
    EXPECT_TRUE(readFile(history) == contentOf(table));
}

TEST_F(DriverHistoryTest, VolumeThatHasBecomeReadOnly) {
    test::TmpfsMount mount(mountPoint, "size=64k");
    writeFile(closedCowFile, contentOf({1, 2}));
    writeFile(history, contentOf({4, 8}));
    mount.makeReadOnly();
    EXPECT_FALSE(make(false));
    EXPECT_EQ(problems().back().text,
              "Cannot make history, cannot open incremental history file: Read-only file system");
    EXPECT_FALSE(roll());
    EXPECT_EQ(problems().back().text, "Cannot roll forward, cannot open incremental file " + closedCowFile +
                                          ": Read-only file system");
    EXPECT_EQ(readFile(history), contentOf({4, 8}));
}

TEST_F(DriverHistoryTest, SystemCallsThatFail) {
    writeFile(closedCowFile, contentOf({1, 2}));
    writeFile(currentCowFile, contentOf({1, 2}));
    writeFile(history, contentOf({4, 8}));
    const auto failsWith = [&](long call, bool merge, const std::string& text) {
        return inChild([&] {
            test::denySystemCall(call, EIO);
            const bool done = merge ? roll() : make(false);
            return !done && problems() == Lines{{level::error, text + ": Input/output error"}};
        });
    };
    EXPECT_TRUE(failsWith(SYS_write, true, "Unable to write merge to incremental file " + closedCowFile));
    EXPECT_TRUE(failsWith(SYS_write, false, "Unable to write to incremental history file " + history));
    // If its data hasn't reached the disk, the history is unusable.
    EXPECT_TRUE(failsWith(SYS_fsync, false, "Unable to write to incremental history file " + history));
}

} // namespace
} // namespace agent::info
