#include "common/File.h"

#include "common/PosixError.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/mount.h>
#include <unistd.h>

namespace agent {
namespace {

using test::messageOf;
using test::readFile;
using test::writeFile;

const std::string missing = ": No such file or directory | ERROR(Posix) : 2 (0x2)";

class File : public testing::Test {
protected:
    std::string operator()(const char* name) const { return directory / name; }

    test::TestDirectory directory;
    const std::string a = directory / "a";
    const std::string b = directory / "b";
};

TEST_F(File, ExistsCountsADanglingLink) {
    EXPECT_FALSE(file::exists(a));
    file::symlink(b, a);
    EXPECT_TRUE(file::exists(a));
    EXPECT_FALSE(file::exists(b));
}

TEST_F(File, Remove) {
    writeFile(a, "x");
    file::remove(a);
    EXPECT_FALSE(file::exists(a));
    EXPECT_EQ(messageOf<PosixError>([&] { file::remove(a); }), "std::remove(\"" + a + "\") failed" + missing);
}

TEST_F(File, CopyKeepsBytesAndPermissions) {
    const std::string content = std::string(200'000, 'x') + std::string("\0end", 4);
    writeFile(a, content);
    ::chmod(a.c_str(), 0640);
    file::copy(a, b);
    EXPECT_EQ(readFile(b), content);
    EXPECT_EQ(file::status(b).st_mode & 07777, 0640U);
}

TEST_F(File, CopyOfAMissingFileFails) {
    EXPECT_EQ(messageOf<PosixError>([&] { file::copy(a, b); }),
              "file::copy(\"" + a + "\" -> \"" + b + "\") failed" + missing);
    EXPECT_FALSE(file::exists(b));
}

TEST_F(File, CopyNeverOverwrites) {
    writeFile(a, "new");
    writeFile(b, "old");
    EXPECT_EQ(messageOf<PosixError>([&] { file::copy(a, b); }),
              "file::copy(\"" + a + "\" -> \"" + b +
                  "\") failed - dest file exists: File exists | ERROR(Posix) : 17 (0x11)");
    EXPECT_EQ(readFile(b), "old");
}

TEST_F(File, CopyToALinkThatLeadsNowhereIsToldAsWhatItIs) {
    writeFile(a, "new");
    const std::string nowhere = directory / "nowhere";
    ASSERT_EQ(::symlink(nowhere.c_str(), b.c_str()), 0);
    EXPECT_EQ(messageOf<PosixError>([&] { file::copy(a, b); }),
              "file::copy(\"" + a + "\" -> \"" + b +
                  "\") failed - dest file exists: File exists | ERROR(Posix) : 17 (0x11)");
}

TEST_F(File, CopyToADirectoryIsRefused) {
    writeFile(a, "new");
    EXPECT_EQ(messageOf<PosixError>([&] { file::copy(a, directory.path()); }),
              "file::copy(\"" + a + "\" -> \"" + directory.path().str() +
                  "\") failed - expected dest file name, not directory: Is a directory | ERROR(Posix) : 21 "
                  "(0x15)");
}

TEST_F(File, CopyOntoAFullDiskLeavesNothing) {
    const std::string small = directory / "small";
    dir::make(small);
    ASSERT_EQ(::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=16k"), 0);
    writeFile(a, std::string(200'000, 'x'));
    const std::string to = small + "/copy";
    EXPECT_EQ(messageOf<PosixError>([&] { file::copy(a, to); }),
              "file::copy(\"" + a + "\" -> \"" + to +
                  "\") failed: No space left on device | ERROR(Posix) : 28 (0x1c)");
    EXPECT_FALSE(file::exists(to));
    ASSERT_EQ(::umount(small.c_str()), 0);
}

TEST_F(File, RenameReplaces) {
    writeFile(a, "new");
    writeFile(b, "old");
    file::rename(a, b);
    EXPECT_EQ(readFile(b), "new");
    EXPECT_EQ(messageOf<PosixError>([&] { file::rename(a, b); }),
              "std::rename(\"" + a + "\", \"" + b + "\") failed" + missing);
}

TEST_F(File, SymbolicLink) {
    writeFile(a, "x");
    file::symlink(a, b);
    EXPECT_TRUE(S_ISLNK(file::linkStatus(b).st_mode));
    EXPECT_EQ(readFile(b), "x");
    EXPECT_EQ(messageOf<PosixError>([&] { file::symlink(a, b); }),
              "symlink(\"" + a + "\" -> \"" + b + "\") failed: File exists | ERROR(Posix) : 17 (0x11)");
}

TEST_F(File, SymbolicLinkToADirectoryIsRefused) {
    const std::string source = directory.path();
    EXPECT_EQ(messageOf<PosixError>([&] { file::symlink(source, b); }),
              "symlink(\"" + source + "\" -> \"" + b +
                  "\") failed - source is a directory: Is a directory | ERROR(Posix) : 21 (0x15)");
    EXPECT_FALSE(file::exists(b));
}

TEST_F(File, HardLink) {
    writeFile(a, "x");
    file::link(a, b);
    EXPECT_EQ(file::status(a).st_ino, file::status(b).st_ino);
    EXPECT_EQ(messageOf<PosixError>([&] { file::link(directory / "none", directory / "c"); }),
              "link(\"" + (*this)("none") + "\" -> \"" + (*this)("c") + "\") failed" + missing);
}

TEST_F(File, Status) {
    writeFile(a, "four");
    EXPECT_EQ(file::status(a).st_size, 4);
    EXPECT_EQ(file::linkStatus(a).st_size, 4);
    EXPECT_EQ(file::status64(a).st_size, 4);
    EXPECT_EQ(messageOf<PosixError>([&] { (void)file::status(b); }), "stat(\"" + b + "\") failed" + missing);
    EXPECT_EQ(messageOf<PosixError>([&] { (void)file::linkStatus(b); }),
              "lstat(\"" + b + "\") failed" + missing);
    EXPECT_EQ(messageOf<PosixError>([&] { (void)file::status64(b); }),
              "stat64(\"" + b + "\") failed" + missing);
}

TEST_F(File, ReplaceWritesWholeFilesOnly) {
    file::replace(a, "first", 0600);
    EXPECT_EQ(readFile(a), "first");
    EXPECT_EQ(file::status(a).st_mode & 07777, 0600U);
    file::replace(a, "second", 0644);
    EXPECT_EQ(readFile(a), "second");
    EXPECT_EQ(file::status(a).st_mode & 07777, 0644U);
    EXPECT_EQ(dir::list(directory.path()), std::vector<std::string>{"a"});
}

TEST_F(File, ReplaceOnAFullDiskKeepsTheOldFile) {
    const std::string small = directory / "small";
    dir::make(small);
    ASSERT_EQ(::mount("tmpfs", small.c_str(), "tmpfs", 0, "size=16k"), 0);
    const std::string path = small + "/settings";
    file::replace(path, "old", 0600);
    EXPECT_THROW(file::replace(path, std::string(200'000, 'x'), 0600), PosixError);
    EXPECT_EQ(readFile(path), "old");
    EXPECT_EQ(dir::list(small), std::vector<std::string>{"settings"});
    ASSERT_EQ(::umount(small.c_str()), 0);
}

TEST_F(File, ReplaceOverwritesTheLeftOverOfACrash) {
    writeFile(a + ".new", "half a fi");
    file::replace(a, "whole", 0600);
    EXPECT_EQ(readFile(a), "whole");
    EXPECT_EQ(dir::list(directory.path()), std::vector<std::string>{"a"});
}

TEST_F(File, ReplaceDoesNotWriteThroughAPlantedLink) {
    writeFile(b, "precious");
    file::symlink(b, a + ".new");
    file::replace(a, "settings", 0600);
    EXPECT_EQ(readFile(b), "precious");
}

} // namespace
} // namespace agent
