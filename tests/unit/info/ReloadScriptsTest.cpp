#include "common/File.h"
#include "support/DeniedSystemCall.h"
#include "support/Messages.h"
#include "unit/info/DriverFixture.h"

#include <filesystem>
#include <sys/stat.h>

namespace agent::info {
namespace {

using test::messageOf;

class ReloadScriptsTest : public test::DriverFixture {
protected:
    std::string failureToWrite() {
        return messageOf<std::runtime_error>([&] { controller.writeReloadScript(volume); });
    }
    std::string failureToDelete() {
        return messageOf<std::runtime_error>([&] { controller.deleteReloadScript(volume); });
    }
    bool toTracking(const std::string& fileSystem) {
        return controller.transitionToIncremental(volumeOf(fileSystem, {mountPoint}));
    }

    static mode_t modeOf(const std::string& path) { return file::status(path).st_mode & 07777; }

    const std::string path = script(7);
};

TEST_F(ReloadScriptsTest, TextAndMode) {
    addDevice(3, "/.tolvu1", 7);
    controller.writeReloadScript(volume);
    EXPECT_EQ(test::readFile(path), "#!/bin/sh\n\necho \"Reloading incremental - 7 ...\" > /dev/kmsg\n"
                                    "/usr/bin/tolvuctl reload-incremental "
                                    "/dev/disk/by-uuid/6f0c9f2e-57a5-4a0b-8a1c-000000000001 /.tolvu1 7\n");
    EXPECT_EQ(modeOf(path), 0700U);
    EXPECT_EQ(path, "/etc/tolvu/bek/reload_7");
}

TEST_F(ReloadScriptsTest, ReplacesALongerOneWithAnotherMode) {
    addDevice(3, "/.tolvu1", 7);
    test::writeFile(path, std::string(5000, 'x'));
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    controller.writeReloadScript(volume);
    EXPECT_LT(test::readFile(path).size(), 500U);
    EXPECT_EQ(modeOf(path), 0700U);
}

TEST_F(ReloadScriptsTest, Delete) {
    addDevice(3, "/.tolvu1", 7);
    controller.writeReloadScript(volume);
    controller.deleteReloadScript(volume);
    EXPECT_FALSE(file::exists(path));
    EXPECT_EQ(failureToDelete(), "Failed to unlink file");
}

TEST_F(ReloadScriptsTest, WithoutADevice) {
    EXPECT_EQ(failureToWrite(), "Failed to get device minor");
    EXPECT_EQ(failureToDelete(), "Failed to get device minor");
}

TEST_F(ReloadScriptsTest, PathThatCannotBeWritten) {
    addDevice(3, "/.tolvu1", 7);
    std::filesystem::create_directory(path);
    EXPECT_EQ(failureToWrite(), "Failed to open handle to incremental reload script");
    EXPECT_EQ(failureToDelete(), "Failed to unlink file");
    std::filesystem::remove(path);
}

/// Runs `action` in a child process in which a system call fails. Returns what it returns.
bool failsWithout(long call, int error, const std::function<bool()>& action) {
    const pid_t child = ::fork();
    if (child == 0) {
        test::denySystemCall(call, error);
        ::_exit(action() ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    return status == 0;
}

TEST_F(ReloadScriptsTest, ModeThatCannotBeSet) {
    addDevice(3, "/.tolvu1", 7);
    EXPECT_TRUE(failsWithout(SYS_chmod, EPERM, [&] {
        return failureToWrite() == "Failed to set permissions on incremental reload script";
    }));
}

TEST_F(ReloadScriptsTest, HalfAScriptIsRemoved) {
    addDevice(3, "/.tolvu1", 7);
    EXPECT_TRUE(failsWithout(SYS_write, ENOSPC, [&] {
        return failureToWrite() == "Failed to write incremental reload script" && !file::exists(path);
    }));
}

/// Root runs the script, so no name from a volume or the driver may become a shell command.
TEST_F(ReloadScriptsTest, NamesThatAShellWouldNotTakeAsOneWord) {
    addDevice(3, "/.tolvu; reboot", 7);
    EXPECT_EQ(failureToWrite(), "A name is not fit for an incremental reload script");
    EXPECT_FALSE(file::exists(path));
}

TEST_F(ReloadScriptsTest, EveryFileSystemButTwoGetsOne) {
    for (const char* fileSystem : {"ext4", "xfs", "vfat", "ntfs", "exfat", "NTFS", "ntfs3", ""}) {
        addDevice(3, "/.tolvu1", 7);
        EXPECT_TRUE(toTracking(fileSystem));
        const bool exempt = fileSystem == std::string("ntfs") || fileSystem == std::string("exfat");
        EXPECT_EQ(file::exists(path), !exempt) << fileSystem;
        EXPECT_TRUE(controller.destroyDevice(volume));
    }
}

TEST_F(ReloadScriptsTest, FailureToWriteOneDoesNotStopTheTransition) {
    addDevice(3, "/.tolvu1", 7);
    std::filesystem::create_directory(path);
    EXPECT_TRUE(toTracking("ext4"));
    EXPECT_TRUE(recorder.has(
        level::warning, "Exception occurred writing out incremental reload scripts: Failed to open handle "
                        "to incremental reload script"));
    EXPECT_EQ(driver.all().front().state, 2);
    std::filesystem::remove(path);
}

} // namespace
} // namespace agent::info
