#include "info/DriverController.h"

#include "common/json/ParseJson.h"
#include "common/json/WholeNumber.h"
#include "info/BackupableVolume.h"
#include "info/DriverVersion.h"
#include "info/log/Logger.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <exception>
#include <string_view>
#include <utility>

namespace agent::info {

namespace {

using nlohmann::json;

constexpr int typeErrorId = 302; // the JSON library's number for an unexpected type
constexpr std::uint32_t highestState = 5;
constexpr int lastMinor = 255;

void require(bool isOfType, const char* expected, const json& value) {
    if (!isOfType) {
        throw json::type_error::create(
            typeErrorId, std::string("type must be ") + expected + ", but is " + value.type_name(), &value);
    }
}

std::int32_t integer(const json& value) {
    require(value.is_number_integer(), "integer", value);
    return requireWholeNumber<std::int32_t>(value);
}

DriverDeviceInfo deviceFrom(const json& element) {
    DriverDeviceInfo device;
    device.minor = integer(element.at("minor"));
    device.state = integer(element.at("state"));
    device.cow_file = element.at("cow_file").get<std::string>();
    device.block_device = element.at("block_device").get<std::string>();
    const auto error = element.find("error");
    device.error = error == element.end() ? 0 : integer(*error);
    return device;
}

bool isValid(const DriverDeviceInfo& device) {
    return device.minor >= 0 && static_cast<std::uint32_t>(device.state) <= highestState &&
           !device.cow_file.empty() && !device.block_device.empty();
}

} // namespace

DriverController::DriverController(Logger& logger, std::unique_ptr<BaseController> controller)
    : DriverController(logger, std::move(controller), DriverStatusFiles::ofRunningDriver) {}

DriverController::DriverController(Logger& logger, std::unique_ptr<BaseController> controller,
                                   FindDriverStatusFiles findStatusFiles)
    : logger(logger), controller(std::move(controller)), findStatusFiles(std::move(findStatusFiles)) {
    LogEntry(logger, level::debug) << "DriverController created";
}

DriverController::~DriverController() {
    LogEntry(logger, level::debug) << "DriverController destroyed";
}

bool DriverController::Load() {
    LogEntry(logger, level::debug) << "start Load";
    const std::string path = findStatusFiles().info;
    try {
        return parse(readDriverStatusFile(path).value_or(std::string()));
    } catch (const std::exception& error) {
        const int reason = errno;
        logger.log(level::error, info::reason("driver-unusable"),
                   "Unable to read tolvubd info from %s: exception: %s, errno: %d", path.c_str(),
                   error.what(), reason);
        return false;
    }
}

bool DriverController::parse(const std::string& text) {
    try {
        const json document = parseJson(text);
        std::string version = document.at("version").get<std::string>();
        const json& devices = document.at("devices");
        require(devices.is_structured(), "array", devices);
        driverVersion = std::move(version);
        devicesByMinor.clear();
        devicesByBlockDevice.clear();
        for (const json& element : devices) {
            store(deviceFrom(element));
        }
        return true;
    } catch (const std::exception& error) {
        logger.log(level::error, info::reason("driver-unusable"),
                   "Unable to parse tolvubd info from %s: exception: %s", text.c_str(), error.what());
        return false;
    }
}

void DriverController::store(const DriverDeviceInfo& device) {
    if (!isValid(device)) {
        logger.log(level::error,
                   "Invalid data from driver, ignoring this device: minor: %d, state: %d, cowfile: %s, "
                   "blockdevice: %s, error: %d",
                   device.minor, device.state, device.cow_file.c_str(), device.block_device.c_str(),
                   device.error);
        return;
    }
    devicesByMinor.insert_or_assign(device.minor, device);
    devicesByBlockDevice.insert_or_assign(device.block_device, device);
    logger.log(level::debug, "Found device: minor: %d, state: %d, cowfile: %s, blockdevice: %s, error: %d",
               device.minor, device.state, device.cow_file.c_str(), device.block_device.c_str(),
               device.error);
}

bool DriverController::getUnusedMinor(int& out) {
    LogEntry(logger, level::debug) << "start getUnusedMinor";
    if (!Load()) {
        return false;
    }
    int minor = 0;
    while (minor < lastMinor && devicesByMinor.contains(minor)) {
        ++minor;
    }
    logger.log(level::debug, "Next available minor: %d", minor);
    out = minor;
    return true;
}

bool DriverController::getDeviceByMinor(const int& minor, DriverDeviceInfo& out) {
    logger.log(level::debug, "start getDeviceByMinor for minor: %d", minor);
    if (!Load()) {
        return false;
    }
    const auto device = devicesByMinor.find(minor);
    if (device == devicesByMinor.end()) {
        logger.log(level::debug, "No device for minor number found for minor %d", minor);
        return false;
    }
    out = device->second;
    return true;
}

bool DriverController::getDeviceInfo(const BackupableVolume& volume, DriverDeviceInfo& info) {
    LogEntry(logger, level::debug) << "start getDeviceInfo";
    if (!Load()) {
        return false;
    }
    // A reload script names the device by the volume's UUID, and the driver reports it under that path.
    for (const std::string& name : {volume.getDevice(), "/dev/disk/by-uuid/" + volume.getUuid()}) {
        const auto device = devicesByBlockDevice.find(name);
        if (device != devicesByBlockDevice.end()) {
            info = device->second;
            return true;
        }
    }
    logger.log(level::debug, "Could not find device for %s", volume.getUuid().c_str());
    return false;
}

bool DriverController::getSnapshotPath(const BackupableVolume& volume, std::string& path) {
    logger.log(level::debug, "start getSnapshotPath for device: %s", volume.getDevice().c_str());
    DriverDeviceInfo device;
    if (!getDeviceInfo(volume, device)) {
        logger.log(level::error, "Unable to find device for getSnapshotPath: %s", volume.getDevice().c_str());
        return false;
    }
    path = "/dev/tolvu" + std::to_string(device.minor);
    return true;
}

bool DriverController::isDriverVersionSupported() {
    LogEntry(logger, level::debug) << "start isDriverVersionSupported";
    if (!Load()) {
        return false;
    }
    logger.log(level::debug, "running tolvubd version: %s", driverVersion.c_str());
    if (driverVersion.size() < shortestDriverVersion) {
        logger.log(level::error, info::reason("driver-unusable"), "Invalid tolvubd version: %s",
                   driverVersion.c_str());
        return false;
    }
    if (scanDriverVersion(driverVersion) < scanDriverVersion(minimumDriverVersion)) {
        logger.log(level::error, info::reason("driver-unusable"),
                   "tolvubd version too old, minimum required: %s, running version: %s", minimumDriverVersion,
                   driverVersion.c_str());
        return false;
    }
    return true;
}

} // namespace agent::info
