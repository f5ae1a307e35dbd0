#include "info/SystemInfoProvider.h"

#include "common/Directory.h"
#include "common/File.h"
#include "support/DeniedSystemCall.h"
#include "support/TestDirectory.h"
#include "support/TmpfsMount.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <iostream>
#include <sched.h>
#include <stdexcept>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

// Runs in lab/namespace, where /etc is private to the test.
namespace agent::info {
namespace {

/// Runs `ask` in a process in which a system call fails, and prints its exception on standard error.
[[noreturn]] void reportDenied(long systemCall, const std::function<void(const SystemInfoProvider&)>& ask) {
    test::denySystemCall(systemCall, EPERM);
    try {
        ask(SystemInfoProvider());
    } catch (const std::runtime_error& error) {
        std::cerr << error.what();
    }
    std::_Exit(0);
}

class OSVersion : public testing::Test {
protected:
    OSVersion() {
        for (const char* file : {"/etc/os-release", "/etc/lsb-release", "/etc/redhat-release"}) {
            if (file::exists(file)) {
                file::remove(file);
            }
        }
    }

    SystemInfoProvider provider;
};

TEST_F(OSVersion, IsNameAndVersionWithoutTheirQuotes) {
    test::writeFile("/etc/os-release",
                    "PRETTY_NAME=\"No such\"\nVERSION_ID=\"12\"\nNAME=\"Debian GNU/Linux\"\n"
                    "VERSION='12 (bookworm)'\nID=debian\n");
    test::writeFile("/etc/lsb-release", "DISTRIB_DESCRIPTION=\"another\"\n");
    EXPECT_EQ(provider.getOSVersion(), "Debian GNU/Linux 12 (bookworm)");
}

TEST_F(OSVersion, MayHaveNoQuotesAndNoLastLineEnd) {
    test::writeFile("/etc/os-release", "NAME=Fedora\nVERSION=39");
    EXPECT_EQ(provider.getOSVersion(), "Fedora 39");
    test::writeFile("/etc/os-release", "NAME=\"half\nVERSION=\"\n");
    EXPECT_EQ(provider.getOSVersion(), "\"half \"");
}

TEST_F(OSVersion, OfASystemThatIsNeverReleasedIsItsName) {
    test::writeFile("/etc/os-release", "NAME=\"Arch Linux\"\nID=arch\n");
    EXPECT_EQ(provider.getOSVersion(), "Arch Linux");
}

TEST_F(OSVersion, ComesFromTheNextFileWhereOneTellsNothing) {
    test::writeFile("/etc/os-release", "ID=ubuntu\nVERSION=8\n");
    test::writeFile("/etc/lsb-release", "DISTRIB_ID=Ubuntu\nDISTRIB_DESCRIPTION=\"Ubuntu 8.04.4 LTS\"\n");
    test::writeFile("/etc/redhat-release", "CentOS release 6.10 (Final)\nmore\n");
    EXPECT_EQ(provider.getOSVersion(), "Ubuntu 8.04.4 LTS");
    test::writeFile("/etc/lsb-release", "LSB_VERSION=1\n");
    EXPECT_EQ(provider.getOSVersion(), "CentOS release 6.10 (Final)");
}

TEST_F(OSVersion, OfNoFileIsAFailure) {
    EXPECT_THROW(std::ignore = provider.getOSVersion(), std::runtime_error);
    test::writeFile("/etc/redhat-release", "");
    dir::make("/etc/os-release"); // it can be opened but not read
    try {
        std::ignore = provider.getOSVersion();
        FAIL();
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), "failed to get OS version");
    }
}

TEST_F(OSVersion, IsNotLookedForWithoutEnd) {
    test::writeFile("/etc/os-release", std::string(100'000, '\n') + "NAME=late\n");
    EXPECT_THROW(std::ignore = provider.getOSVersion(), std::runtime_error);
}

TEST(SystemInfoProvider, TellsTheKernelAndItsArchitecture) {
    struct utsname name{};
    ASSERT_EQ(::uname(&name), 0);
    const SystemInfoProvider provider;
    EXPECT_EQ(provider.getKernelVersion(), KernelVersion::of(&name.release[0]));
    EXPECT_GT(provider.getKernelVersion().major, 0);
    EXPECT_EQ(provider.getArchitecture(), &name.machine[0]);
    EXPECT_EQ(provider.getArchitectureBits(), sizeof(void*) * 8);
}

TEST(KernelVersion, HasUpToThreeNumbers) {
    const auto expectVersion = [](const char* release, const KernelVersion& version) {
        EXPECT_EQ(KernelVersion::of(release), version) << release;
    };
    expectVersion("6.12.48+deb13-amd64", {6, 12, 48});
    expectVersion("6.1.0-18.2-amd64", {6, 1, 0});
    expectVersion("6.18-rc1", {6, 18, 0});
    expectVersion("6.18.", {6, 18, 0});
    expectVersion("7", {7, 0, 0});
    expectVersion("6.1.99999999999", {6, 1, 0});
    expectVersion("", {0, 0, 0});
}

TEST(SystemInfoProvider, TellsTheMachinesSize) {
    struct sysinfo state{};
    ASSERT_EQ(::sysinfo(&state), 0);
    const SystemInfoProvider provider;
    EXPECT_EQ(provider.getCPUCount(), ::get_nprocs());
    EXPECT_EQ(provider.getTotalRAM(), std::uint64_t{state.totalram} * state.mem_unit);
    EXPECT_GT(provider.getFreeRAM(), 0);
    EXPECT_LT(provider.getFreeRAM(), provider.getTotalRAM());
    EXPECT_GE(provider.getUptime(), state.uptime);
    EXPECT_LE(provider.getUptime(), state.uptime + 60);
}

TEST(SystemInfoProvider, TellsTheHostNameUpToTheLongest) {
    ASSERT_EQ(::unshare(CLONE_NEWUTS), 0);
    for (const std::string& name : {std::string("short"), std::string(64, 'n')}) {
        ASSERT_EQ(::sethostname(name.c_str(), name.size()), 0);
        EXPECT_EQ(SystemInfoProvider().getHostName(), name);
    }
}

TEST(SystemInfoProvider, TellsWhatTheFirmwareDoes) {
    const test::TmpfsMount classes("/sys/class", "");
    dir::make("/sys/class/dmi");
    dir::make("/sys/class/dmi/id");
    test::writeFile("/sys/class/dmi/id/product_serial", "4C4C-0044\n");
    test::writeFile("/sys/class/dmi/id/product_uuid", "");
    const SystemInfoProvider provider;
    EXPECT_EQ(provider.getSMBIOSValue(smbios::serial), "4C4C-0044");
    EXPECT_EQ(provider.getSMBIOSValue(smbios::uuid), "");
    for (const char* missing : {smbios::name, smbios::vendor}) {
        try {
            std::ignore = provider.getSMBIOSValue(missing);
            ADD_FAILURE() << missing;
        } catch (const std::runtime_error& error) {
            EXPECT_EQ(error.what(), "Could not get system " + std::string(missing));
        }
    }
}

TEST(SystemInfoProviderDeathTest, UnknownKernelIsAFailure) {
    const auto denied = [](auto ask) { reportDenied(SYS_uname, ask); };
    EXPECT_EXIT(denied([](const auto& provider) { std::ignore = provider.getKernelVersion(); }),
                testing::ExitedWithCode(0), "^Could not get kernel version, uname failed$");
    EXPECT_EXIT(denied([](const auto& provider) { std::ignore = provider.getArchitecture(); }),
                testing::ExitedWithCode(0), "^could not get OS architecture. uname failed$");
    EXPECT_EXIT(denied([](const auto& provider) { std::ignore = provider.getArchitectureBits(); }),
                testing::ExitedWithCode(0), "^could not get OS architecture. uname failed$");
    EXPECT_EXIT(denied([](const auto& provider) { std::ignore = provider.getHostName(); }),
                testing::ExitedWithCode(0), "^could not get hostname. gethostname failed$");
}

TEST(SystemInfoProviderDeathTest, UnknownMemoryAndUptimeAreFailures) {
    const auto denied = [](auto ask) { reportDenied(SYS_sysinfo, ask); };
    EXPECT_EXIT(denied([](const auto& provider) { std::ignore = provider.getTotalRAM(); }),
                testing::ExitedWithCode(0), "^could not get system ram. sysinfo failed$");
    EXPECT_EXIT(denied([](const auto& provider) { std::ignore = provider.getFreeRAM(); }),
                testing::ExitedWithCode(0), "^could not get system ram. sysinfo failed$");
    EXPECT_EXIT(denied([](const auto& provider) { std::ignore = provider.getUptime(); }),
                testing::ExitedWithCode(0), "^could not get system uptime. sysinfo failed$");
}

} // namespace
} // namespace agent::info
