#include "common/PosixError.h"
#include "core/backup/PrivateDirectory.h"
#include "support/LoopFileSystem.h"
#include "unit/core/backup/SnapshotSessionFixture.h"

#include <cerrno>
#include <csignal>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace agent::core::backup {
namespace {

using info::level::warning;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr uid_t stranger = 65534;

/// A mounted file system for something to unmount.
void mountTmpfs(const std::string& path) {
    dir::make(path);
    ASSERT_EQ(::mount("tmpfs", path.c_str(), "tmpfs", 0, "size=64k"), 0) << path;
}

bool isMountPoint(const std::string& path) {
    return file::status(path).st_dev != file::status(Path(path).parent()).st_dev;
}

/// The names of what was moved away from the mount root.
std::vector<std::string> movedAway() {
    std::vector<std::string> names;
    for (const std::string& name : dir::list("/tmp")) {
        if (name.starts_with("tolvuMountRoot.")) {
            names.push_back("/tmp/" + name);
        }
    }
    return names;
}

class SnapshotMountTest : public SnapshotSessionFixture {
protected:
    ~SnapshotMountTest() override {
        for (const std::string& path : movedAway()) {
            ::unlink(path.c_str());
            ::rmdir(path.c_str());
        }
    }
    SnapshotMountTest() = default;
    SnapshotMountTest(const SnapshotMountTest&) = delete;
    SnapshotMountTest& operator=(const SnapshotMountTest&) = delete;

    /// Makes the driver report a file with a file system as every volume's snapshot device.
    void showImage(const std::string& makeFileSystem) {
        driver->snapshotPath = directory / "image";
        test::writeFile(driver->snapshotPath, std::string(4UL * 1048576, '\0'));
        test::outputOf(makeFileSystem + " " + driver->snapshotPath);
    }

    /// The same with a file system that a debugfs request has damaged.
    void showDamaged(const std::string& request) {
        showImage("mkfs.ext4 -q");
        test::outputOf("debugfs -w -R '" + request + "' " + driver->snapshotPath);
    }

    /// Whether the log says that a snapshot couldn't be mounted, with this errno.
    bool saysErrno(int error) const {
        return log.has(warning, "Failed to mount device " + driver->snapshotPath +
                                    " (/dev/disk1), errno: " + std::to_string(error));
    }

    void endSession(const std::shared_ptr<TestVolume>& volume) {
        track(volume->getUuid(), "/.tolvu", 3);
        control->transitionToIncremental({volume}, true);
    }

    const std::string target = mountRoot + "/" + one;
};

TEST_F(SnapshotMountTest, ASnapshotIsMountedReadOnlyForRootOnlyAndUnmountedAtTheEnd) {
    showImage("mkfs.ext4 -q");
    const auto volume = makeVolume(one);
    start({volume}, FULL);
    ASSERT_TRUE(isMountPoint(target));
    EXPECT_TRUE(file::exists(target + "/lost+found"));
    EXPECT_EQ(::mkdir((target + "/new").c_str(), 0755), -1);
    EXPECT_EQ(errno, EROFS);
    EXPECT_EQ(file::status(mountRoot).st_mode & 07777U, 0700U);
    EXPECT_TRUE(
        log.has(info::level::info, "Mounted " + driver->snapshotPath + " (/dev/disk1) onto " + target));

    endSession(volume);
    EXPECT_TRUE(log.has(info::level::info, "Unmounted  " + target));
    EXPECT_THAT(dir::list(mountRoot), IsEmpty());
}

// While SIGCHLD is ignored, as it is during a backup, the kernel doesn't report the exit of a helper process.
TEST_F(SnapshotMountTest, ASnapshotIsMountedByAHelperOfWhoseEndNobodyIsTold) {
    showImage("mkfs.ntfs -Q -F -q");
    const auto volume = makeVolume(one);
    const auto before = ::signal(SIGCHLD, SIG_IGN);
    start({volume}, FULL);
    EXPECT_TRUE(isMountPoint(target));
    EXPECT_TRUE(
        log.has(info::level::info, "Mounted " + driver->snapshotPath + " (/dev/disk1) onto " + target));
    endSession(volume);
    EXPECT_THAT(dir::list(mountRoot), IsEmpty());

    driver->snapshotPath = "/dev/null";
    driver->devices.clear();
    start({volume}, FULL);
    EXPECT_TRUE(saysErrno(ENOTBLK));
    ::signal(SIGCHLD, before);
}

TEST_F(SnapshotMountTest, ASnapshotThatCannotBeMountedIsNoFailure) {
    const auto volume = makeVolume(one);
    driver->snapshotPath = "/dev/null";
    start({volume}, FULL);
    EXPECT_TRUE(saysErrno(ENOTBLK));
    driver->devices.clear();
    driver->failing = {"getSnapshotPath"};
    EXPECT_EQ(start({volume}, FULL).at(one).snapshotPath, "");
}

TEST_F(SnapshotMountTest, TheLogHasTheErrorOfTheKernel) {
    const auto volume = makeVolume(one);
    driver->snapshotPath = "/dev/tolvu-missing";
    start({volume}, FULL);
    EXPECT_TRUE(saysErrno(ENOENT));
    for (const auto& [request, error] : {std::pair("set_bg 0 inode_table 99999999", EUCLEAN),
                                         std::pair("set_super_value inode_size 77", EINVAL)}) {
        showDamaged(request);
        driver->devices.clear();
        start({volume}, FULL);
        EXPECT_TRUE(saysErrno(error)) << request;
    }
}

TEST_F(SnapshotMountTest, AnEarlierRunIsClearedBeforeTheSnapshots) {
    const auto volume = makeVolume(one);
    mountTmpfs(mountRoot + "/left over");
    dir::make(mountRoot + "/never mounted");
    driver->failing = {"startSnapshot"};
    EXPECT_EQ(startFailure({volume}, FULL), "Failed to start snapshot!");
    EXPECT_TRUE(log.has(info::level::info, "Unmounted  " + mountRoot + "/left over"));
    EXPECT_TRUE(log.has(warning, "Failed to unmount " + mountRoot +
                                     "/never mounted(errno: " + std::to_string(EINVAL) + ")"));
    EXPECT_THAT(dir::list(mountRoot), IsEmpty());
}

TEST_F(SnapshotMountTest, AMountInUseStays) {
    const auto volume = makeVolume(one);
    mountTmpfs(target);
    test::writeFile(target + "/file", "content");
    {
        const std::ifstream user(target + "/file");
        endSession(volume);
        EXPECT_TRUE(
            log.has(warning, "Failed to unmount " + target + "(errno: " + std::to_string(EBUSY) + ")"));
        EXPECT_EQ(test::readFile(target + "/file"), "content");
    }
    endSession(volume);
    EXPECT_THAT(dir::list(mountRoot), IsEmpty());
}

TEST_F(SnapshotMountTest, WhatIsNoDirectoryOrNotEmptyStays) {
    const auto volume = makeVolume(one);
    private_directory::make(mountRoot);
    test::writeFile(mountRoot + "/file", "content");
    dir::make(mountRoot + "/full/directory");
    endSession(volume);
    EXPECT_EQ(test::readFile(mountRoot + "/file"), "content");
    EXPECT_TRUE(file::exists(mountRoot + "/full/directory"));
    dir::remove(mountRoot + "/full");
    file::remove(mountRoot + "/file");
}

TEST_F(SnapshotMountTest, ALinkInPlaceOfTheRootLeadsNowhere) {
    showImage("mkfs.ext4 -q");
    const auto volume = makeVolume(one);
    mountTmpfs(directory / "elsewhere" / one);
    const std::string elsewhere = directory / "elsewhere";
    ASSERT_EQ(::symlink(elsewhere.c_str(), mountRoot.c_str()), 0);
    start({volume}, FULL);
    EXPECT_TRUE(log.has(warning, mountRoot + " is not the agent's, nothing in it is unmounted"));
    EXPECT_TRUE(isMountPoint(elsewhere + "/" + one));
    ASSERT_THAT(movedAway(), SizeIs(1));
    EXPECT_TRUE(log.has(warning, mountRoot + " was not the agent's, it is now " + movedAway().front()));
    EXPECT_TRUE(isMountPoint(target));

    endSession(volume);
    EXPECT_FALSE(file::exists(target));
    EXPECT_TRUE(isMountPoint(elsewhere + "/" + one));
    ASSERT_EQ(::umount((elsewhere + "/" + one).c_str()), 0);
}

TEST_F(SnapshotMountTest, ADirectoryThatOthersFillIsNotUsed) {
    showImage("mkfs.ext4 -q");
    const auto volume = makeVolume(one);
    for (const bool isWritable : {true, false}) {
        dir::make(mountRoot);
        ASSERT_EQ(isWritable ? ::chmod(mountRoot.c_str(), 01777) : ::chown(mountRoot.c_str(), stranger, 0),
                  0);
        mountTmpfs(mountRoot + "/theirs");
        driver->devices.clear();
        start({volume}, FULL);
        EXPECT_TRUE(isMountPoint(target));
        endSession(volume);
        ASSERT_THAT(movedAway(), SizeIs(1));
        EXPECT_TRUE(isMountPoint(movedAway().front() + "/theirs"));
        ASSERT_EQ(::umount((movedAway().front() + "/theirs").c_str()), 0);
        dir::remove(movedAway().front());
        file::remove(mountRoot);
    }
}

TEST_F(SnapshotMountTest, AUuidLeadsNotOutOfTheRoot) {
    showImage("mkfs.ext4 -q");
    makeVolume(one);
    for (const std::string uuid : {"", ".", "..", "../elsewhere", "a/b"}) {
        info::VolumeDescription description = describe(one);
        description.uuid = uuid;
        const auto volume = std::make_shared<TestVolume>(std::move(description));
        log.clear();
        start({volume}, FULL);
        EXPECT_TRUE(saysErrno(EINVAL)) << uuid;
    }
    EXPECT_FALSE(file::exists(mountRoot));
}

TEST_F(SnapshotMountTest, AFileInPlaceOfTheMountPoint) {
    showImage("mkfs.ext4 -q");
    const auto volume = makeVolume(one);
    private_directory::make(mountRoot);
    test::writeFile(target, "");
    start({volume}, FULL);
    EXPECT_TRUE(saysErrno(ENOTDIR));
    file::remove(target);
}

TEST(PrivateDirectory, IsRealRootsAndWritableForRootOnly) {
    const test::TestDirectory directory;
    const std::string path = directory / "place";
    EXPECT_FALSE(private_directory::isPrivate(path));
    test::writeFile(path, "");
    EXPECT_FALSE(private_directory::isPrivate(path));
    file::remove(path);
    dir::make(path);
    EXPECT_TRUE(private_directory::isPrivate(path));
    ASSERT_EQ(::chmod(path.c_str(), 0775), 0);
    EXPECT_FALSE(private_directory::isPrivate(path));
    ASSERT_EQ(::chmod(path.c_str(), 0757), 0);
    EXPECT_FALSE(private_directory::isPrivate(path));
    ASSERT_EQ(::chmod(path.c_str(), 0700), 0);
    ASSERT_EQ(::chown(path.c_str(), stranger, 0), 0);
    EXPECT_FALSE(private_directory::isPrivate(path));
    const std::string link = directory / "link";
    ASSERT_EQ(::symlink("/", link.c_str()), 0);
    EXPECT_FALSE(private_directory::isPrivate(link));
}

TEST(PrivateDirectory, IsMadeOnceAndTakenFromNobody) {
    const test::TestDirectory directory;
    const std::string path = directory / "parent/place";
    EXPECT_EQ(private_directory::make(path), "");
    EXPECT_EQ(file::status(path).st_mode & 07777U, 0700U);
    ASSERT_EQ(::chmod(path.c_str(), 0755), 0);
    test::writeFile(path + "/file", "mine");
    EXPECT_EQ(private_directory::make(path), "");
    EXPECT_EQ(file::status(path).st_mode & 07777U, 0700U);
    EXPECT_EQ(test::readFile(path + "/file"), "mine");

    ASSERT_EQ(::chown(path.c_str(), stranger, 0), 0);
    const std::string renamed = private_directory::make(path);
    EXPECT_EQ(test::readFile(renamed + "/file"), "mine");
    EXPECT_THAT(dir::list(path), IsEmpty());
}

TEST(PrivateDirectory, CannotBeMadeBelowAFile) {
    const test::TestDirectory directory;
    test::writeFile(directory / "file", "");
    EXPECT_THROW(private_directory::make(directory / "file/place"), PosixError);
}

} // namespace
} // namespace agent::core::backup
