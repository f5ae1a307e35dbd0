#include "common/File.h"
#include "support/DeniedSystemCall.h"
#include "support/TmpfsMount.h"
#include "unit/info/DriverHistoryFixture.h"

#include <filesystem>
#include <sys/stat.h>

namespace agent::info {
namespace {

using test::readFile;
using test::writeFile;

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
