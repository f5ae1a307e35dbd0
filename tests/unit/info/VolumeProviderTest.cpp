#include "info/VolumeProvider.h"

#include "common/PosixError.h"
#include "support/FakeUdisks.h"
#include "support/MessageBus.h"
#include "support/ProcessState.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"
#include "support/TmpfsMount.h"
#include "support/Waiting.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <optional>
#include <sys/statvfs.h>
#include <thread>
#include <unistd.h>

// These tests use a fake daemon for what can't be set up on a real machine: drives, partition tables of all
// kinds, a volume at "/". tests/functional/test_volumes.py uses the real daemon.
namespace agent::info {
namespace {

using level::debug;
using level::warning;
using test::FakeUdisks;
using test::MessageBus;
using test::UdisksObject;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

const testing::Environment* const environment = testing::AddGlobalTestEnvironment(new test::BusAddress);

constexpr std::uint64_t mebibyte = 1 << 20;

/// The message of the exception that the search for volumes throws.
std::string failureOf(const VolumeProvider& provider) {
    try {
        static_cast<void>(provider.getBackupableVolumes());
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

class VolumeProviderTest : public testing::Test {
protected:
    VolumeProviderTest() {
        ::unlink(test::busSocket.c_str());
        bus.emplace();
    }

    std::vector<VolumeProvider::Volume> volumesOf(std::vector<UdisksObject> objects) {
        const FakeUdisks udisks(std::move(objects));
        return provider.getBackupableVolumes();
    }

    VolumeProvider::Volume onlyVolumeOf(UdisksObject object) {
        const auto volumes = volumesOf({std::move(object)});
        if (volumes.size() != 1) {
            throw std::runtime_error(std::to_string(volumes.size()) + " volumes");
        }
        return volumes.front();
    }

    static UdisksObject fileSystem(std::vector<std::string> mountPoints, UdisksObject::Block block = {}) {
        return {.name = "volume", .block = std::move(block), .mountPoints = std::move(mountPoints)};
    }

    bool isReadOnlyUnmounted(const std::string& configuration) {
        return onlyVolumeOf(fileSystem({}, {.configuration = configuration}))->isReadOnly();
    }

    std::string schemeOf(const std::string& tableType) {
        UdisksObject partition = fileSystem({});
        partition.table = test::udisksPath("disk");
        return volumesOf({partition, {.name = "disk", .tableType = tableType}}).front()->getPartScheme();
    }

    std::optional<MessageBus> bus;
    test::RecordingLogger log;
    VolumeProvider provider{log.logger};
    test::TestDirectory directory;
};

/// The daemon describes the device; statvfs() of the first mount point supplies the block size.
TEST_F(VolumeProviderTest, MountedVolumeIsDescribedByTheDaemonAndItsFileSystem) {
    const test::TmpfsMount mount(directory / "mount", "");
    const auto volume = onlyVolumeOf(fileSystem(
        {directory / "mount", "/elsewhere"},
        {.device = "/dev/nulls/no-such", .uuid = "some-uuid", .label = "some label", .size = 8 * mebibyte}));
    EXPECT_EQ(volume->getDevice(), "/dev/nulls/no-such");
    EXPECT_EQ(volume->getDeviceName(), "nulls/no-such");
    EXPECT_EQ(volume->getUuid(), "some-uuid");
    EXPECT_EQ(volume->getLabel(), "some label");
    EXPECT_EQ(volume->getFileSystem(), "ext4");
    EXPECT_EQ(volume->getSize(), 8 * mebibyte);
    EXPECT_THAT(volume->getMountPoints(), ElementsAre(std::string(directory / "mount"), "/elsewhere"));
    EXPECT_EQ(volume->getDisplayName(), "some-uuid (" + std::string(directory / "mount") + ")");
    EXPECT_EQ(volume->getBlockSize(), 4096);
    EXPECT_EQ(volume->getBlockCount(), 2048);
    EXPECT_EQ(volume->getHiddenSectors(), 0);
    EXPECT_EQ(volume->getVolumeType(), "");
    EXPECT_EQ(volume->getPartScheme(), "");
    EXPECT_TRUE(volume->isMounted());
    EXPECT_FALSE(volume->isReadOnly());
    EXPECT_FALSE(volume->isRemovable());
    EXPECT_FALSE(volume->isOSVolume());
    EXPECT_FALSE(volume->isSysVolume());
    EXPECT_FALSE(volume->exists());
    EXPECT_TRUE(log.has(debug, "Found object at \"" + test::udisksPath("volume") + "\""));
    EXPECT_TRUE(log.has(debug, "device: /dev/nulls/no-such, sectors: 0, sector size: 0, devsize: 8388608"));
    EXPECT_FALSE(log.hasPart(warning, "evenly"));
}

TEST_F(VolumeProviderTest, FreeSpaceIsThatOfTheFirstMountPoint) {
    const test::TmpfsMount mount(directory / "mount", "size=1m");
    const auto volume = onlyVolumeOf(fileSystem({directory / "mount"}));
    EXPECT_EQ(volume->getSpaceFree(), mebibyte);
    test::writeFile(directory / "mount/file", std::string(4096, 'x'));
    EXPECT_EQ(volume->getSpaceFree(), mebibyte - 4096);
}

TEST_F(VolumeProviderTest, FreeSpaceOfAVanishedMountPointIsAFailure) {
    const auto volume = onlyVolumeOf(fileSystem({"/no/such"}));
    EXPECT_THAT([&] { return volume->getSpaceFree(); },
                testing::ThrowsMessage<PosixError>(StartsWith("statvfs with path /no/such failed")));
}

TEST_F(VolumeProviderTest, RestOfADeviceIsToldAndIgnored) {
    const test::TmpfsMount mount(directory / "mount", "");
    const auto volume = onlyVolumeOf(fileSystem({directory / "mount"}, {.size = 3 * 4096 + 512}));
    EXPECT_EQ(volume->getBlockCount(), 3);
    EXPECT_TRUE(log.has(warning, "Device size 12800 is not evenly divisible by the block size 4096, ignoring "
                                 "512 bytes at the end."));
}

TEST_F(VolumeProviderTest, BlocksOfALoopDeviceAreThoseOfItsFileSystem) {
    const test::TmpfsMount mount(directory / "mount", "size=1m");
    UdisksObject object = fileSystem({directory / "mount"}, {.size = 8 * mebibyte});
    object.loop = true;
    EXPECT_EQ(onlyVolumeOf(object)->getBlockCount(), 256);
}

TEST_F(VolumeProviderTest, UnmountedVolumeHasNoBlocks) {
    const auto volume = onlyVolumeOf(fileSystem({}, {.uuid = "some-uuid", .size = mebibyte + 1}));
    EXPECT_FALSE(volume->isMounted());
    EXPECT_EQ(volume->getBlockSize(), 0);
    EXPECT_EQ(volume->getBlockCount(), 0);
    EXPECT_EQ(volume->getDisplayName(), "some-uuid");
    EXPECT_EQ(volume->getSpaceFree(), 0);
    EXPECT_FALSE(log.hasPart(warning, "evenly"));
}

TEST_F(VolumeProviderTest, FstabTellsWhetherAnUnmountedVolumeIsReadOnly) {
    EXPECT_TRUE(isReadOnlyUnmounted("[('fstab', {'opts': <b'defaults,ro'>})]"));
    EXPECT_TRUE(isReadOnlyUnmounted("[('crypttab', {'opts': <b'rw'>}), ('fstab', {'dir': <b'/x'>, "
                                    "'opts': <b'ro'>})]"));
    EXPECT_FALSE(isReadOnlyUnmounted("@a(sa{sv}) []"));
    EXPECT_FALSE(isReadOnlyUnmounted("[('fstab', {'opts': <b'defaults,errors=remount-ro,rot'>})]"));
    EXPECT_FALSE(isReadOnlyUnmounted("[('crypttab', {'opts': <b'ro'>})]"));
    EXPECT_FALSE(isReadOnlyUnmounted("[('fstab', @a{sv} {})]"));
    EXPECT_FALSE(isReadOnlyUnmounted("[('fstab', {'opts': <'ro'>})]")); // not a byte string
}

TEST_F(VolumeProviderTest, ReadOnlyDeviceIsReadOnlyMountedOrNot) {
    const test::TmpfsMount mount(directory / "mount", "");
    EXPECT_TRUE(onlyVolumeOf(fileSystem({}, {.readOnly = true}))->isReadOnly());
    EXPECT_TRUE(onlyVolumeOf(fileSystem({directory / "mount"}, {.readOnly = true}))->isReadOnly());
}

TEST_F(VolumeProviderTest, MountTellsMoreThanFstab) {
    test::TmpfsMount mount(directory / "mount", "");
    const UdisksObject object =
        fileSystem({directory / "mount"}, {.configuration = "[('fstab', {'opts': <b'ro'>})]"});
    EXPECT_FALSE(onlyVolumeOf(object)->isReadOnly());
    mount.makeReadOnly();
    EXPECT_TRUE(onlyVolumeOf(fileSystem({directory / "mount"}))->isReadOnly());
}

TEST_F(VolumeProviderTest, MountPointThatDoesNotAnswerLeavesFstab) {
    const auto volume =
        onlyVolumeOf(fileSystem({"/no/such"}, {.configuration = "[('fstab', {'opts': <b'ro'>})]"}));
    EXPECT_TRUE(volume->isMounted());
    EXPECT_TRUE(volume->isReadOnly());
    EXPECT_EQ(volume->getBlockSize(), 0);
    EXPECT_EQ(volume->getBlockCount(), 0);
}

TEST_F(VolumeProviderTest, VolumeOfTheSystemMayBeMountedElsewhereFirst) {
    const auto volume = onlyVolumeOf(fileSystem({"/mnt", "/"}, {.uuid = "some-uuid"}));
    EXPECT_TRUE(volume->isOSVolume());
    EXPECT_FALSE(volume->isSysVolume());
    EXPECT_EQ(volume->getDisplayName(), "some-uuid (/mnt)");
}

TEST_F(VolumeProviderTest, VolumeOfTheBootFilesIsToldFromOneBelow) {
    EXPECT_TRUE(onlyVolumeOf(fileSystem({"/boot"}))->isSysVolume());
    EXPECT_FALSE(onlyVolumeOf(fileSystem({"/boot/efi"}))->isSysVolume());
    EXPECT_FALSE(onlyVolumeOf(fileSystem({"/boot"}))->isOSVolume());
}

TEST_F(VolumeProviderTest, SwapSpaceIsAVolumeThatIsNeverMounted) {
    const auto volume = onlyVolumeOf(
        {.name = "swap", .block = {{.usage = "other", .type = "swap", .size = mebibyte}}, .swapspace = true});
    EXPECT_EQ(volume->getFileSystem(), "swap");
    EXPECT_THAT(volume->getMountPoints(), ElementsAre("<swap>"));
    EXPECT_FALSE(volume->isMounted());
    EXPECT_EQ(volume->getSpaceFree(), 0);
    EXPECT_EQ(volume->getBlockSize(), 0);
}

TEST_F(VolumeProviderTest, SwapSpaceIsNotMountedEvenWithMountPoints) {
    UdisksObject object = fileSystem({"/"});
    object.swapspace = true;
    EXPECT_FALSE(onlyVolumeOf(object)->isMounted());
}

TEST_F(VolumeProviderTest, FileSystemIsNamedForUsagesThatAreKnown) {
    EXPECT_EQ(onlyVolumeOf(fileSystem({}, {.type = ""}))->getFileSystem(), "");
    EXPECT_EQ(onlyVolumeOf(fileSystem({}, {.usage = "raid"}))->getFileSystem(), "");
    EXPECT_EQ(onlyVolumeOf(fileSystem({}, {.usage = "other"}))->getFileSystem(), "");
    EXPECT_EQ(onlyVolumeOf(fileSystem({}, {.usage = ""}))->getFileSystem(), "");
}

TEST_F(VolumeProviderTest, ObjectsThatAreNoVolumesAreLeftOut) {
    EXPECT_THAT(volumesOf({{.name = "Manager"},
                           {.name = "disk", .block = UdisksObject::Block{}, .tableType = "gpt"}}),
                IsEmpty());
    EXPECT_EQ(log.count(debug, "Object is neither a filesystem nor swapspace."), 2);
}

TEST_F(VolumeProviderTest, ObjectThatCannotBeDescribedCostsOnlyItself) {
    const auto volumes = volumesOf({{.name = "a", .mountPoints = std::vector<std::string>{}},
                                    fileSystem({}, {.uuid = "good"}),
                                    {.name = "z", .mountPoints = std::vector<std::string>{}}});
    ASSERT_EQ(volumes.size(), 1);
    EXPECT_EQ(volumes.front()->getUuid(), "good");
    EXPECT_EQ(log.count(debug, "Exception caught while processing object: The object has no block device."),
              2);
}

TEST_F(VolumeProviderTest, DeviceThatCannotBeOpenedHasNoSectors) {
    const auto volume = onlyVolumeOf(fileSystem({}, {.device = "/dev/no-such", .size = mebibyte}));
    EXPECT_EQ(volume->getSectorSize(), 0);
    EXPECT_EQ(volume->getSectorCount(), 0);
    EXPECT_TRUE(log.has(warning, "Cannot open volume \"/dev/no-such\" for reading."));
}

TEST_F(VolumeProviderTest, DeviceWithoutSectorsIsKept) {
    const auto volume = onlyVolumeOf(fileSystem({}, {.device = "/dev/null", .size = mebibyte}));
    EXPECT_EQ(volume->getSectorSize(), 0);
    EXPECT_EQ(volume->getSectorCount(), 0);
    EXPECT_TRUE(log.has(warning, "Could not get sector size for device: /dev/null. (Inappropriate ioctl for "
                                 "device)"));
}

TEST_F(VolumeProviderTest, ShortDeviceNameIsKeptWhole) {
    EXPECT_EQ(onlyVolumeOf(fileSystem({}, {.device = "/dev/"}))->getDeviceName(), "/dev/");
    EXPECT_EQ(onlyVolumeOf(fileSystem({}, {.device = ""}))->getDeviceName(), "");
}

TEST_F(VolumeProviderTest, DriveTellsWhetherItIsRemovable) {
    const UdisksObject volume = fileSystem({}, {.drive = test::udisksPath("drive")});
    EXPECT_TRUE(volumesOf({volume, {.name = "drive", .removable = true}}).front()->isRemovable());
    EXPECT_FALSE(volumesOf({volume, {.name = "drive", .removable = false}}).front()->isRemovable());
    EXPECT_FALSE(volumesOf({volume, {.name = "drive"}}).front()->isRemovable());
    EXPECT_FALSE(volumesOf({volume}).front()->isRemovable());
}

TEST_F(VolumeProviderTest, PartitionTablesAreNamedAsTheApplianceKnowsThem) {
    EXPECT_EQ(schemeOf("dos"), "MBR");
    EXPECT_EQ(schemeOf("gpt"), "GPT");
    EXPECT_EQ(schemeOf("atari"), "atari");
}

TEST_F(VolumeProviderTest, PartitionWhoseTableIsGoneHasNoScheme) {
    UdisksObject partition = fileSystem({});
    partition.table = test::udisksPath("gone");
    EXPECT_EQ(onlyVolumeOf(partition)->getPartScheme(), "");
    partition.table = test::udisksPath("disk");
    EXPECT_EQ(volumesOf({partition, {.name = "disk"}}).front()->getPartScheme(), "");
}

TEST_F(VolumeProviderTest, MountPointsAreBytes) {
    EXPECT_THAT(onlyVolumeOf(fileSystem({"/mnt/B\xfcro", "/mnt/Büro und Lager"}))->getMountPoints(),
                ElementsAre("/mnt/B\xfcro", "/mnt/Büro und Lager"));
}

TEST_F(VolumeProviderTest, FilterChoosesAmongAllVolumes) {
    UdisksObject one = fileSystem({}, {.uuid = "one"});
    UdisksObject two = fileSystem({}, {.uuid = "two"});
    two.name = "another";
    const FakeUdisks udisks({one, two});
    int offered = 0;
    const auto volumes = provider.getBackupableVolumes([&](const VolumeProvider::Volume& volume) {
        ++offered;
        return volume->getUuid() == "two";
    });
    EXPECT_EQ(offered, 2);
    ASSERT_EQ(volumes.size(), 1);
    EXPECT_EQ(volumes.front()->getUuid(), "two");
}

TEST_F(VolumeProviderTest, VolumeIsFoundByItsUuid) {
    UdisksObject nameless = fileSystem({}, {.label = "nameless"});
    nameless.name = "another";
    const FakeUdisks udisks({fileSystem({}, {.uuid = "one", .label = "found"}), nameless});
    EXPECT_EQ(provider.getBackupableVolume("one")->getLabel(), "found");
    EXPECT_EQ(provider.getBackupableVolume("")->getLabel(), "nameless");
    EXPECT_EQ(provider.getBackupableVolume("two"), nullptr);
}

TEST_F(VolumeProviderTest, WithoutTheServiceTheSearchFails) {
    EXPECT_EQ(failureOf(provider),
              "Cannot get object manager from udisks client. The service is probably not running");
    const FakeUdisks nameless({fileSystem({})}, false);
    EXPECT_EQ(failureOf(provider),
              "Cannot get object manager from udisks client. The service is probably not running");
}

TEST_F(VolumeProviderTest, WithoutABusTheSearchFails) {
    bus.reset();
    ::unlink(test::busSocket.c_str());
    EXPECT_EQ(failureOf(provider),
              "Cannot initialize udisks client: Could not connect: No such file or directory");
}

TEST_F(VolumeProviderTest, AgentOutlivesTheBusAndFindsTheNextOne) {
    EXPECT_EQ(volumesOf({fileSystem({})}).size(), 1);
    bus.reset();
    EXPECT_THAT(failureOf(provider), StartsWith("Cannot initialize udisks client: "));
    bus.emplace();
    EXPECT_EQ(volumesOf({fileSystem({})}).size(), 1);
}

TEST_F(VolumeProviderTest, BrokenPipesAreStillTheAgentsOwnAffair) {
    EXPECT_EQ(test::disposition(SIGPIPE).sa_handler, SIG_DFL);
    EXPECT_EQ(volumesOf({fileSystem({})}).size(), 1);
    EXPECT_EQ(test::disposition(SIGPIPE).sa_handler, SIG_DFL);
}

TEST_F(VolumeProviderTest, NothingStaysOpen) {
    EXPECT_EQ(volumesOf({fileSystem({})}).size(), 1); // GLib keeps some descriptors after the first use
    const FakeUdisks udisks({fileSystem({})});
    const std::size_t descriptors = test::openDescriptors();
    for (int round = 0; round < 50; ++round) {
        EXPECT_EQ(provider.getBackupableVolumes().size(), 1);
    }
    // A GLib thread closes the last connection.
    EXPECT_TRUE(test::eventually([&] { return test::openDescriptors() <= descriptors; }));
}

TEST_F(VolumeProviderTest, ManyMayAskAtOnce) {
    const FakeUdisks udisks({fileSystem({"/"}, {.uuid = "some-uuid"})});
    std::vector<std::thread> threads;
    std::atomic<int> found = 0;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&] {
            for (int round = 0; round < 10; ++round) {
                found += provider.getBackupableVolume("some-uuid")->isOSVolume() ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(found, 80);
}

} // namespace
} // namespace agent::info
