#include "info/DriverExtension.h"

#include "common/PosixError.h"
#include "info/DriverStatusFiles.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <tolvubd.h>

namespace {

std::int32_t result = 0;
int failure = 0;
std::string asked;
int looks = 0;

std::int32_t answer(const std::string& question) {
    asked = question;
    errno = failure;
    return result;
}

} // namespace

// The functions of a library that replaces the kernel driver.
// NOLINTBEGIN(readability-identifier-naming)
const tolvubd_status_files* tolvubd_get_status_files() {
    static const tolvubd_status_files files{"/run/info", "/run/version"};
    ++looks;
    return &files;
}

std::int32_t tolvubd_check_snapshot(std::uint32_t minor) {
    return answer("check " + std::to_string(minor));
}

const char* const* tolvubd_get_own_files() {
    static const char* const names[] = {".one", ".two", nullptr};
    return names;
}

std::int32_t tolvubd_get_room(const char* block_device, std::uint64_t* bytes) {
    *bytes = 77;
    return answer(std::string("room ") + block_device);
}
// NOLINTEND(readability-identifier-naming)

namespace agent::info {
namespace {

class DriverExtensionTest : public testing::Test {
protected:
    static void fail(int reason) {
        result = -1;
        failure = reason;
    }
    DriverExtensionTest() {
        result = 0;
        failure = 0;
    }

    const DriverExtension extension;
};

TEST_F(DriverExtensionTest, StatusFilesAreTheLibrarysAndAskedForEachTime) {
    looks = 0;
    EXPECT_EQ(DriverStatusFiles::ofRunningDriver().info, "/run/info");
    EXPECT_EQ(DriverStatusFiles::ofRunningDriver().version, "/run/version");
    EXPECT_EQ(looks, 2);
}

TEST_F(DriverExtensionTest, SnapshotIsWhatTheLibrarySays) {
    failure = EIO; // errno is ignored if the call succeeds
    EXPECT_EQ(extension.checkSnapshot(7), 0);
    EXPECT_EQ(asked, "check 7");
    fail(ESTALE);
    EXPECT_EQ(extension.checkSnapshot(7), ESTALE);
    fail(0);
    EXPECT_EQ(extension.checkSnapshot(7), EIO);
}

TEST_F(DriverExtensionTest, OwnFilesUpToTheEndOfTheList) {
    EXPECT_THAT(extension.getDriverFiles(), testing::ElementsAre(".one", ".two"));
}

TEST_F(DriverExtensionTest, RoomOrAnError) {
    EXPECT_EQ(extension.getSnapshotSpace("/dev/sda1"), 77U);
    EXPECT_EQ(asked, "room /dev/sda1");
    fail(ENXIO);
    EXPECT_THROW(static_cast<void>(extension.getSnapshotSpace("/dev/sda1")), PosixError);
}

} // namespace
} // namespace agent::info
