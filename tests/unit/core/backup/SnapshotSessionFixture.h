#pragma once

#include "common/File.h"
#include "core/backup/BackupAttributes.h"
#include "core/backup/BackupType.h"
#include "core/backup/SnapshotAttributes.h"
#include "core/backup/SnapshotSessionControl.h"
#include "info/ICowFileSize.h"
#include "support/FakeDriverController.h"
#include "support/FakeDriverExtension.h"
#include "support/Messages.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <sys/mount.h>

namespace agent::core::backup {

inline constexpr std::uint64_t cowMiB = 100;
inline const std::string mountRoot = "/tmp/tolvuMountRoot";
inline const std::string one = "11111111-1111-1111-1111-111111111111";
inline const std::string two = "22222222-2222-2222-2222-222222222222";

/// How much space must be free on a volume of `size` bytes.
constexpr std::uint64_t required(std::uint64_t size) {
    return cowMiB * 1048576 + 8 + 8 * (size / 4096);
}

/// A volume whose free space the test sets.
class TestVolume : public info::BackupableVolume {
public:
    explicit TestVolume(info::VolumeDescription description)
        : BackupableVolume(std::move(description)), free(required(getSize())) {}

    [[nodiscard]] std::uint64_t getSpaceFree() const override { return free; }

    std::uint64_t free;
};

class FixedSize : public info::ICowFileSize {
public:
    std::uint64_t getCowFileSizeMiB(info::Logger& /*logger*/, const std::string& uuid, std::uint64_t size,
                                    const std::string& fileSystem) override {
        asked = uuid + " " + std::to_string(size) + " " + fileSystem;
        return mebibytes;
    }

    std::uint64_t mebibytes = cowMiB;
    std::string asked;
};

/// A session with a fake driver and with volumes that are directories of the test.
class SnapshotSessionFixture : public testing::Test {
protected:
    static constexpr std::uint64_t size = 10 * 1048576 + 100; // not a whole number of blocks

    SnapshotSessionFixture() {
        auto owned = std::make_unique<test::FakeDriverController>();
        driver = owned.get();
        control = std::make_unique<SnapshotSessionControl>(log.logger, sizes, std::move(owned), extension);
    }

    ~SnapshotSessionFixture() override {
        if (!file::exists(mountRoot)) {
            return;
        }
        for (const std::string& name : dir::list(mountRoot)) {
            ::umount2((mountRoot + "/" + name).c_str(), MNT_DETACH);
        }
        dir::remove(mountRoot);
    }
    SnapshotSessionFixture(const SnapshotSessionFixture&) = delete;
    SnapshotSessionFixture& operator=(const SnapshotSessionFixture&) = delete;

    [[nodiscard]] std::string mountPoint(const std::string& uuid) const { return directory / uuid; }

    /// A volume with an empty CoW file, as a driver makes it for the first snapshot.
    std::shared_ptr<TestVolume> makeVolume(const std::string& uuid, const std::string& fileSystem = "ext4") {
        dir::make(mountPoint(uuid));
        writeCowFile(uuid, ".tolvu", 0);
        return std::make_shared<TestVolume>(describe(uuid, fileSystem));
    }

    [[nodiscard]] info::VolumeDescription describe(const std::string& uuid,
                                                   const std::string& fileSystem = "ext4") const {
        info::VolumeDescription description;
        description.device = "/dev/disk" + uuid.substr(0, 1);
        description.fileSystem = fileSystem;
        description.size = size;
        description.uuid = uuid;
        description.mountPoints = {mountPoint(uuid)};
        description.blockSize = 4096;
        description.blockCount = size / 4096;
        description.mounted = true;
        return description;
    }

    void writeCowFile(const std::string& uuid, const std::string& name, std::uint64_t changedBlocks) const {
        std::string header(4096, '\0');
        header[0] = '\xa8';
        header[1] = '\x12';
        for (std::size_t byte = 0; byte < 8; ++byte) {
            header[56 + byte] = static_cast<char>(changedBlocks >> (8 * byte));
        }
        test::writeFile(mountPoint(uuid) + "/" + name, header + std::string(20480, '\0'));
    }

    /// Adds a device, by default a tracked one, whose bitmap of changes is in `cowFile`.
    void track(const std::string& uuid, const std::string& cowFile = "/.tolvu", std::int32_t state = 2,
               std::int32_t deviceError = 0) {
        driver->devices[uuid] = {7, state, cowFile, "/dev/whatever", deviceError};
    }

    VolumeSnapshotInfos start(const SnapshotSessionControl::Volumes& volumes,
                              std::uint32_t type = INCREMENTAL) {
        std::unordered_map<std::string, VolumeAttributes> records;
        for (const auto& volume : volumes) {
            records[volume->getUuid()] = {0, type, {}};
        }
        return control->startSnapshots(volumes, BackupAttributes(std::move(records)),
                                       SnapshotAttributes(0, {}, 0));
    }

    /// The message of the failure to start, which must happen.
    std::string startFailure(const SnapshotSessionControl::Volumes& volumes,
                             std::uint32_t type = INCREMENTAL) {
        return test::messageOf<std::runtime_error>([&] { start(volumes, type); });
    }

    test::TestDirectory directory;
    test::RecordingLogger log;
    FixedSize sizes;
    test::FakeDriverController* driver = nullptr;
    std::shared_ptr<test::FakeDriverExtension> extension = std::make_shared<test::FakeDriverExtension>();
    std::unique_ptr<SnapshotSessionControl> control;
};

} // namespace agent::core::backup
