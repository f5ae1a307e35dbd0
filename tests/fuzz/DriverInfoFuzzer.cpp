#include "info/BackupableVolume.h"
#include "info/DriverController.h"
#include "info/log/Logger.h"
#include "os/FileDescriptor.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

/// Arbitrary bytes as the driver's status file: loads the table and runs every query on it.
namespace {

using agent::info::DriverDeviceInfo;

/// A file in memory that can be opened by path.
class MemoryFile {
public:
    MemoryFile(const std::uint8_t* data, std::size_t size) : file(::memfd_create("info", MFD_CLOEXEC)) {
        if (!file || ::write(file.get(), data, size) != static_cast<ssize_t>(size)) {
            std::abort();
        }
    }
    [[nodiscard]] std::string path() const { return "/proc/self/fd/" + std::to_string(file.get()); }

private:
    os::FileDescriptor file;
};

agent::info::BackupableVolume makeVolume() {
    agent::info::VolumeDescription description;
    description.device = "/dev/sda1";
    description.uuid = "6f0c9f2e-57a5-4a0b-8a1c-000000000001";
    return agent::info::BackupableVolume(description);
}

void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const agent::info::BackupableVolume volume = makeVolume();
    agent::info::Logger logger{agent::info::PrinterFunction()};
    const MemoryFile file(data, size);
    const agent::info::DriverStatusFiles files{file.path(), file.path()};
    agent::info::DriverController controller(logger, nullptr, [&] { return files; });
    static_cast<void>(controller.isDriverVersionSupported());
    std::string next;
    DriverDeviceInfo device;
    if (controller.getDeviceInfo(volume, device)) {
        require(device.minor >= 0 && device.state >= 0 && device.state <= 5);
        require(controller.calculateCowFile(device, next) && next != device.cow_file);
        require(controller.getSnapshotPath(volume, next) && next.starts_with("/dev/tolvu"));
    }
    int minor = 0;
    if (controller.getUnusedMinor(minor)) {
        require(minor >= 0 && minor <= 255 && (minor == 255 || !controller.getDeviceByMinor(minor, device)));
    }
    return 0;
}
