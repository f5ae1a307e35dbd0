#include "info/DriverInfoProvider.h"

#include "info/DriverExtension.h"
#include "support/Messages.h"
#include "support/TestDirectory.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace agent::info {
namespace {

using test::messageOf;
using test::writeFile;

class DriverInfoProviderTest : public testing::Test {
protected:
    std::string failureOfVersion() const {
        return messageOf<std::runtime_error>([&] { static_cast<void>(provider.getDriverVersion()); });
    }
    std::string failureOfStatus() const {
        return messageOf<std::runtime_error>([&] { static_cast<void>(provider.getDriverStatus()); });
    }

    test::TestDirectory directory;
    const std::string info = directory / "driver/info";
    const std::string version = directory / "driver/version";
    int asked = 0;
    DriverInfoProvider provider{[this] {
        ++asked;
        return DriverStatusFiles{info, version};
    }};
};

TEST_F(DriverInfoProviderTest, WithoutADriver) {
    EXPECT_EQ(failureOfVersion(),
              "Could not open driver version file. tolvubd is not present on your system!");
    EXPECT_EQ(failureOfStatus(), "Failed to open driver status info file");
}

TEST_F(DriverInfoProviderTest, DriverThatTellsNoVersion) {
    dir::make(directory / "driver");
    EXPECT_EQ(failureOfVersion(),
              "Could not open driver version file \"" + version + "\". Error: No such file or directory");
    for (const char* text : {"", "\n", "\n0.9.16\n"}) {
        writeFile(version, text);
        EXPECT_EQ(failureOfVersion(), "Could not open driver version file. It holds no version.");
    }
}

TEST_F(DriverInfoProviderTest, VersionIsTheFirstLine) {
    dir::make(directory / "driver");
    for (const char* text : {"0.9.16", "0.9.16\n", "0.9.16\nmore\n"}) {
        writeFile(version, text);
        EXPECT_EQ(provider.getDriverVersion(), "0.9.16");
    }
}

TEST_F(DriverInfoProviderTest, StatusIsTheWholeFile) {
    dir::make(directory / "driver");
    const std::string text = "{\n" + std::string(200'000, ' ') + "}\n";
    writeFile(info, text);
    EXPECT_EQ(provider.getDriverStatus(), text);
    EXPECT_FALSE(provider.isRebootRequired());
}

TEST_F(DriverInfoProviderTest, DriverIsAskedForItsFilesEachTime) {
    dir::make(directory / "driver");
    writeFile(info, "{}");
    writeFile(version, "0.9.16");
    static_cast<void>(provider.getDriverStatus());
    static_cast<void>(provider.getDriverStatus());
    EXPECT_EQ(asked, 2);
    static_cast<void>(provider.getDriverVersion());
    EXPECT_EQ(asked, 3);
}

/// This program isn't linked with a library that replaces the kernel driver.
TEST_F(DriverInfoProviderTest, KernelsFilesUnlessALibraryNamesOthers) {
    EXPECT_EQ(DriverStatusFiles::ofRunningDriver().info, "/proc/tolvu-info");
    EXPECT_EQ(DriverStatusFiles::ofRunningDriver().version, "/sys/module/tolvubd/version");
}

TEST_F(DriverInfoProviderTest, KernelDriversLibraryHasNothingToAdd) {
    const DriverExtension extension;
    EXPECT_EQ(extension.checkSnapshot(0), 0);
    EXPECT_TRUE(extension.getDriverFiles().empty());
    EXPECT_EQ(extension.getSnapshotSpace("/dev/sda1"), 0U);
}

} // namespace
} // namespace agent::info
