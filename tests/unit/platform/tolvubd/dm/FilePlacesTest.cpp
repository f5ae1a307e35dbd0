#include "dm/FilePlaces.h"

#include "../ExpectedError.h"
#include "support/LoopFileSystem.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <string>
#include <unistd.h>

namespace tolvubd::dm {
namespace {

using agent::test::LoopFileSystem;
using agent::test::outputOf;
using test::errorOf;

constexpr std::uint64_t unit = 4096;
constexpr const char* ext4 = "mkfs.ext4 -q -b 4096";
constexpr const char* xfs = "mkfs.xfs -q";

/// Makes a file of `count` extents: collapses every second block of a contiguous file.
void makePieces(const std::string& path, std::size_t count) {
    const os::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::fallocate(file.get(), 0, 0, static_cast<off_t>((2 * count - 1) * unit)), 0);
    for (std::size_t piece = 1; piece < count; ++piece) {
        ASSERT_EQ(::fallocate(file.get(), FALLOC_FL_COLLAPSE_RANGE, static_cast<off_t>(piece * unit), unit),
                  0);
    }
}

std::uint64_t lengthOf(const std::vector<Extent>& places) {
    std::uint64_t length = 0;
    for (const Extent& place : places) {
        length += place.length;
    }
    return length;
}

class FilePlaces : public testing::TestWithParam<const char*> {
protected:
    LoopFileSystem files{GetParam()};
    std::string path = files.path(".tolvu");
};

INSTANTIATE_TEST_SUITE_P(OnFileSystems, FilePlaces, testing::Values(ext4, xfs));

TEST_P(FilePlaces, AreThoseOfItsBytesOnTheVolume) {
    agent::test::writeFile(path, std::string(5 * unit, 'a') + std::string(unit, 'z'));
    const auto places = placesOf(path);
    ASSERT_EQ(lengthOf(places), 6 * unit);
    outputOf("sync -f " + path);
    EXPECT_EQ(files.read(places.front().offset, unit), std::string(unit, 'a'));
    EXPECT_EQ(files.read(places.back().end() - unit, unit), std::string(unit, 'z'));
}

TEST_P(FilePlaces, OfALockedFileAreReserved) {
    constexpr std::uint64_t size = 32 << 20;
    const auto places = makeLockedFile(path, size);
    EXPECT_EQ(lengthOf(places), size);
    EXPECT_EQ(placesOf(path), places);
}

TEST_P(FilePlaces, NobodyChangesALockedFileUntilItIsReleased) {
    makeLockedFile(path, unit);
    EXPECT_EQ(::open(path.c_str(), O_WRONLY | O_CLOEXEC), -1);
    EXPECT_EQ(::unlink(path.c_str()), -1);
    EXPECT_EQ(errno, EPERM);
    EXPECT_EQ(::rename(path.c_str(), files.path("elsewhere").c_str()), -1);
    unlockFile(path);
    EXPECT_EQ(::unlink(path.c_str()), 0);
    unlockFile(path); // the file no longer exists
}

TEST_P(FilePlaces, AFileThatIsThereIsLocked) {
    agent::test::writeFile(path, std::string(unit, 'a'));
    lockFile(path);
    EXPECT_EQ(::unlink(path.c_str()), -1);
    unlockFile(path);
}

TEST_P(FilePlaces, NoFileIsReplaced) {
    agent::test::writeFile(path, "mine");
    EXPECT_EQ(errorOf([&] { makeLockedFile(path, unit); }), EEXIST);
    EXPECT_EQ(agent::test::readFile(path), "mine");
}

TEST_P(FilePlaces, NothingStaysWithoutRoom) {
    EXPECT_EQ(errorOf([&] { makeLockedFile(path, std::uint64_t{1} << 40); }), ENOSPC);
    EXPECT_EQ(::access(path.c_str(), F_OK), -1);
}

TEST_P(FilePlaces, MayBeAsManyAsThereIsRoomFor) {
    makePieces(path, mostPieces);
    const auto places = placesOf(path);
    EXPECT_EQ(places.size(), mostPieces);
    EXPECT_EQ(lengthOf(places), mostPieces * unit);
}

TEST_P(FilePlaces, AreRefusedWhenThereAreMore) {
    makePieces(path, mostPieces + 1);
    EXPECT_EQ(errorOf([&] { placesOf(path); }), EOPNOTSUPP);
}

TEST_P(FilePlaces, AreAllOfTheFile) {
    for (const std::uint64_t hole : {std::uint64_t{0}, 2 * unit, 4 * unit}) {
        const os::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        ASSERT_EQ(::fallocate(file.get(), 0, 0, 5 * unit), 0);
        ASSERT_EQ(::fallocate(file.get(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE,
                              static_cast<off_t>(hole), unit),
                  0);
        EXPECT_EQ(errorOf([&] { placesOf(path); }), EOPNOTSUPP) << hole;
    }
}

TEST_P(FilePlaces, EndWithTheFile) {
    const os::FileDescriptor file(::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ASSERT_EQ(::fallocate(file.get(), 0, 0, 2 * unit), 0);
    ASSERT_EQ(::fallocate(file.get(), FALLOC_FL_KEEP_SIZE, 2 * unit, 8 * unit), 0);
    EXPECT_EQ(lengthOf(placesOf(path)), 2 * unit);
}

TEST_P(FilePlaces, AreThoseOfAFileOnly) {
    outputOf("ln -s /etc/passwd " + path + "; mkdir " + files.path("folder"));
    EXPECT_EQ(errorOf([&] { placesOf(path); }), ELOOP);
    EXPECT_EQ(errorOf([&] { lockFile(path); }), ELOOP);
    EXPECT_EQ(errorOf([&] { lockFile(files.path("folder")); }), EOPNOTSUPP);
    EXPECT_EQ(errorOf([&] { placesOf(files.path("folder")); }), EOPNOTSUPP);
}

TEST(PlacesOfAFile, AreNotSharedWithAnotherOne) {
    const LoopFileSystem files(xfs);
    agent::test::writeFile(files.path("one"), std::string(unit, 'a'));
    outputOf("cp --reflink=always " + files.path("one") + " " + files.path("two"));
    EXPECT_EQ(errorOf([&] { placesOf(files.path("one")); }), EOPNOTSUPP);
}

TEST(PlacesOfAFile, AreNotWithinItsInode) {
    const LoopFileSystem files("mkfs.ext4 -q -O inline_data");
    agent::test::writeFile(files.path("small"), "a");
    EXPECT_EQ(errorOf([&] { placesOf(files.path("small")); }), EOPNOTSUPP);
}

/// Encrypted with a key in the kernel's keyring, as a user's directory is.
TEST(PlacesOfAFile, DoNotHoldWhatIsEncrypted) {
    const LoopFileSystem files(std::string(ext4) + " -O encrypt");
    const std::string folder = files.path("folder");
    outputOf("mkdir " + folder);
    const std::string key = "$(printf %064d 0 | xfs_io -c add_enckey " + folder + " | grep -o '[0-9a-f]*$')";
    outputOf("xfs_io -c \"set_encpolicy " + key + "\" " + folder);
    EXPECT_EQ(errorOf([&] { makeLockedFile(folder + "/.tolvu", unit); }), EOPNOTSUPP);
    EXPECT_EQ(::access((folder + "/.tolvu").c_str(), F_OK), -1);
}

TEST(PlacesOfAFile, AreUnknownElsewhere) {
    const agent::test::TestDirectory directory; // on tmpfs
    EXPECT_EQ(errorOf([&] { makeLockedFile(directory / ".tolvu", unit); }), EOPNOTSUPP);
    EXPECT_EQ(::access((directory / ".tolvu").str().c_str(), F_OK), -1);
}

TEST(PartOfAFile, IsCutOutOfItsPieces) {
    const std::vector<Extent> places{{100, 10}, {50, 20}, {200, 5}};
    EXPECT_EQ(partOf(places, 0, 35), places);
    EXPECT_EQ(partOf(places, 4, 10), (std::vector<Extent>{{104, 6}, {50, 4}}));
    EXPECT_EQ(partOf(places, 10, 20), (std::vector<Extent>{{50, 20}}));
    EXPECT_EQ(partOf(places, 32, 3), (std::vector<Extent>{{202, 3}}));
    EXPECT_EQ(partOf(places, 35, 0), (std::vector<Extent>{}));
}

TEST(PartOfAFile, IsAllThere) {
    const std::vector<Extent> places{{100, 10}, {50, 20}};
    EXPECT_EQ(errorOf([&] { partOf(places, 0, 31); }), EINVAL);
    EXPECT_EQ(errorOf([&] { partOf(places, 31, 0); }), EINVAL);
    EXPECT_EQ(errorOf([&] { partOf(places, 30, 1); }), EINVAL);
    EXPECT_EQ(errorOf([&] { partOf(places, ~std::uint64_t{0}, ~std::uint64_t{0}); }), EINVAL);
}

} // namespace
} // namespace tolvubd::dm
