#include "info/DriverInfoProvider.h"

#include "common/File.h"
#include "common/Path.h"
#include "common/PosixError.h"

#include <cerrno>
#include <optional>
#include <stdexcept>
#include <utility>

namespace agent::info {

namespace {

constexpr const char* moduleName = "tolvubd";
constexpr const char* unusable = "Could not open driver version file. ";

} // namespace

DriverInfoProvider::DriverInfoProvider(FindDriverStatusFiles findStatusFiles)
    : findStatusFiles(std::move(findStatusFiles)) {}

std::string DriverInfoProvider::getDriverVersion() const {
    const std::string path = findStatusFiles().version;
    // The directory only exists while the driver is loaded: it is the module's own below /sys/module.
    if (!file::exists(Path(path).parent())) {
        throw std::runtime_error(std::string(unusable) + moduleName + " is not present on your system!");
    }
    const std::optional<std::string> text = readDriverStatusFile(path);
    if (!text) {
        throw std::runtime_error("Could not open driver version file \"" + path +
                                 "\". Error: " + PosixError::describe(errno));
    }
    std::string version = text->substr(0, text->find('\n'));
    if (version.empty()) {
        throw std::runtime_error(std::string(unusable) + "It holds no version.");
    }
    return version;
}

bool DriverInfoProvider::isRebootRequired() const {
    return false;
}

std::string DriverInfoProvider::getDriverStatus() const {
    const std::optional<std::string> status = readDriverStatusFile(findStatusFiles().info);
    if (!status) {
        throw std::runtime_error("Failed to open driver status info file");
    }
    return *status;
}

} // namespace agent::info
