#include "info/DriverInfoProvider.h"

#include "common/File.h"
#include "common/PosixError.h"

#include <cerrno>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace agent::info {

namespace {

constexpr const char* moduleName = "tolvubd";
constexpr const char* statusFile = "/proc/tolvu-info";
constexpr const char* moduleDirectory = "/sys/module/tolvubd";
constexpr const char* versionFile = "/sys/module/tolvubd/version";

} // namespace

std::string DriverInfoProvider::getDriverVersion() const {
    const std::string prefix = "Could not open driver version file. ";
    if (!file::exists(moduleDirectory)) {
        throw std::runtime_error(prefix + moduleName + " is not present on your system!");
    }
    std::ifstream file(versionFile);
    if (!file) {
        throw std::runtime_error("Could not open driver version file \"" + std::string(versionFile) +
                                 "\". Error: " + PosixError::describe(errno));
    }
    std::string version;
    if (!std::getline(file, version) || version.empty()) {
        throw std::runtime_error(prefix + "It holds no version.");
    }
    return version;
}

bool DriverInfoProvider::isRebootRequired() const {
    return false;
}

std::string DriverInfoProvider::getDriverStatus() const {
    std::ifstream file(statusFile);
    if (!file) {
        throw std::runtime_error("Failed to open driver status info file");
    }
    std::ostringstream status;
    status << file.rdbuf();
    return status.str();
}

} // namespace agent::info
