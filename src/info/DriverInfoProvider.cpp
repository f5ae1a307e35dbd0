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

DriverInfoProvider::DriverInfoProvider(DriverStatusFiles statusFiles) : statusFiles(std::move(statusFiles)) {}

std::string DriverInfoProvider::getDriverVersion() const {
    // The directory comes and goes with the driver: it is the module's own below /sys/module.
    if (!file::exists(Path(statusFiles.version).parent())) {
        throw std::runtime_error(std::string(unusable) + moduleName + " is not present on your system!");
    }
    const std::optional<std::string> text = readDriverStatusFile(statusFiles.version);
    if (!text) {
        throw std::runtime_error("Could not open driver version file \"" + statusFiles.version +
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
    const std::optional<std::string> status = readDriverStatusFile(statusFiles.info);
    if (!status) {
        throw std::runtime_error("Failed to open driver status info file");
    }
    return *status;
}

} // namespace agent::info
