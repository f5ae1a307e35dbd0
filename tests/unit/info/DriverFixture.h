#pragma once

#include "common/BaseDirectories.h"
#include "common/Directory.h"
#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/ICowFileSize.h"
#include "unit/info/FakeDriver.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace agent::test {

/// Always returns 2048, and logs its arguments.
class FixedCowFileSize : public info::ICowFileSize {
public:
    std::uint64_t getCowFileSizeMiB(info::Logger& logger, const std::string& uuid,
                                    std::uint64_t volumeSizeBytes, const std::string& fileSystem) override {
        info::LogEntry(logger, info::level::info)
            << "SIZE " << uuid << " " << volumeSizeBytes << " " << fileSystem;
        return 2048;
    }
};

/// A controller with a fake driver and one volume whose root is a directory of the test.
class DriverFixture : public testing::Test {
protected:
    using Line = RecordingLogger::Line;
    using Lines = std::vector<Line>;

    static constexpr const char* device = "/dev/fake1";
    static constexpr const char* uuid = "6f0c9f2e-57a5-4a0b-8a1c-000000000001";

    DriverFixture() { dir::make(dir::base()); }

    /// The volume of most tests, except for these properties.
    [[nodiscard]] info::BackupableVolume volumeOf(const std::string& fileSystem,
                                                  std::vector<std::string> mountPoints,
                                                  std::uint64_t size = 4097) const {
        info::VolumeDescription description;
        description.device = device;
        description.fileSystem = fileSystem;
        description.size = size;
        description.uuid = uuid;
        description.mountPoints = std::move(mountPoints);
        return info::BackupableVolume(std::move(description));
    }

    void addDevice(std::int32_t state, const std::string& cowFile = "/.tolvu", std::int32_t minor = 0) {
        driver.add({minor, state, cowFile, device, 0});
    }

    /// The lines logged so far, without those about the device table.
    [[nodiscard]] Lines lines() const {
        Lines found;
        for (const Line& line : recorder.lines()) {
            if (!line.text.starts_with("start Load") && !line.text.starts_with("Found device: ") &&
                !line.text.starts_with("DriverController ") && line.text != "start getDeviceInfo") {
                found.push_back(line);
            }
        }
        return found;
    }

    [[nodiscard]] Lines linesAbove(int level) const {
        Lines found = lines();
        std::erase_if(found, [level](const Line& line) {
            return line.level >= level || line.text.starts_with(FakeDriver::marker);
        });
        return found;
    }

    static std::string script(int minor) { return dir::base() / ("reload_" + std::to_string(minor)); }

    TestDirectory directory;
    RecordingLogger recorder;
    const std::string mountPoint = directory.path();
    TestDirectory status;
    info::DriverStatusFiles statusFiles{status / "info", status / "version"};
    FakeDriver driver{recorder, mountPoint, statusFiles.info};
    FixedCowFileSize cowFileSize;
    info::BackupableVolume volume{volumeOf("ext4", {mountPoint, "/other"})};
    info::DriverController controller{recorder.logger, std::make_unique<FakeController>(driver),
                                      [this] { return statusFiles; }};
};

} // namespace agent::test
