#pragma once

#include "info/BaseController.h"
#include "info/DriverDeviceInfo.h"
#include "support/RecordingLogger.h"
#include "support/TestDirectory.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <map>
#include <string>
#include <vector>

namespace agent::test {

/// A driver whose devices are lines of a status file. Each library call is logged, among the controller's
/// lines, and changes the device's state as the real driver would.
class FakeDriver {
public:
    /// A scripted result of a call.
    struct Outcome {
        std::int32_t result = 0;
        int error = 0;
        int times = 1'000'000;
        /// Whether the device changes its state although the call fails.
        bool moves = false;
    };

    FakeDriver(RecordingLogger& recorder, std::string mountPoint, std::string statusFile)
        : recorder(recorder), mountPoint(std::move(mountPoint)), statusFile(std::move(statusFile)) {
        show();
    }

    void add(info::DriverDeviceInfo device) {
        devices.push_back(std::move(device));
        show();
    }

    [[nodiscard]] std::vector<info::DriverDeviceInfo> all() const { return devices; }

    /// The calls so far, in order.
    [[nodiscard]] std::vector<std::string> calls() const {
        std::vector<std::string> found;
        for (const RecordingLogger::Line& line : recorder.lines()) {
            if (line.text.starts_with(marker)) {
                found.push_back(line.text.substr(std::string(marker).size()));
            }
        }
        return found;
    }

    void show() const {
        nlohmann::json elements = nlohmann::json::array();
        for (const info::DriverDeviceInfo& device : devices) {
            elements.push_back({{"minor", device.minor},
                                {"state", device.state},
                                {"cow_file", device.cow_file},
                                {"block_device", device.block_device},
                                {"error", device.error}});
        }
        writeFile(statusFile, nlohmann::json{{"version", version}, {"devices", elements}}.dump());
    }

    std::int32_t setup(std::uint32_t minor, const std::string& device, const std::string& cowFile) {
        return run("setup_snapshot", [&] {
            devices.push_back({static_cast<std::int32_t>(minor), stateAfter, relative(cowFile), device, 0});
        });
    }

    std::int32_t move(const char* call, std::uint32_t minor, std::int32_t state, const std::string& cowFile) {
        return run(call, [&] {
            for (info::DriverDeviceInfo& device : devices) {
                if (device.minor == static_cast<std::int32_t>(minor)) {
                    device.state = state;
                    device.cow_file = cowFile.empty() ? device.cow_file : relative(cowFile);
                }
            }
        });
    }

    std::int32_t destroy(std::uint32_t minor) {
        return run("destroy", [&] {
            std::erase_if(devices, [&](const info::DriverDeviceInfo& device) {
                return device.minor == static_cast<std::int32_t>(minor);
            });
        });
    }

    void record(const std::string& call) { recorder.logger.print(marker + call, info::level::info); }

    std::map<std::string, Outcome> outcomes; ///< by name of the call
    std::int32_t stateAfter = 3;             ///< the state of a device after its snapshot was made
    std::string version = "0.9.16";

    static constexpr const char* marker = "LIBRARY ";

private:
    template <typename Move>
    std::int32_t run(const std::string& call, const Move& moveDevice) {
        const auto outcome = outcomes.find(call);
        const bool intervenes = outcome != outcomes.end() && outcome->second.times-- > 0;
        if (!intervenes || outcome->second.moves) {
            moveDevice();
            show();
        }
        errno = intervenes ? outcome->second.error : 0;
        return intervenes ? outcome->second.result : 0;
    }

    [[nodiscard]] std::string relative(const std::string& cowFile) const {
        return cowFile.starts_with(mountPoint) ? cowFile.substr(mountPoint.size()) : cowFile;
    }

    RecordingLogger& recorder;
    std::string mountPoint;
    std::string statusFile;
    std::vector<info::DriverDeviceInfo> devices;
};

/// Passes the library calls to the fake driver.
class FakeController : public info::BaseController {
public:
    explicit FakeController(FakeDriver& driver) : driver(driver) {}

    std::int32_t setup_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                std::uint64_t cowSizeMiB, std::uint64_t cacheSize) override {
        driver.record("setup_snapshot " + std::to_string(minor) + " " + blockDevice + " " + cowFile + " " +
                      std::to_string(cowSizeMiB) + " " + std::to_string(cacheSize));
        return driver.setup(minor, blockDevice, cowFile);
    }
    std::int32_t transition_snapshot(std::uint32_t minor, const char* cowFile,
                                     std::uint64_t cowSizeMiB) override {
        driver.record("transition_snapshot " + std::to_string(minor) + " " + cowFile + " " +
                      std::to_string(cowSizeMiB));
        return driver.move("transition_snapshot", minor, driver.stateAfter, cowFile);
    }
    std::int32_t transition_incremental(std::uint32_t minor) override {
        driver.record("transition_incremental " + std::to_string(minor));
        return driver.move("transition_incremental", minor, 2, "");
    }
    std::int32_t destroy(std::uint32_t minor) override {
        driver.record("destroy " + std::to_string(minor));
        return driver.destroy(minor);
    }
    std::int32_t reload_snapshot(std::uint32_t /*minor*/, const char* /*blockDevice*/,
                                 const char* /*cowFile*/, std::uint64_t /*cacheSize*/) override {
        return unexpected("reload_snapshot");
    }
    std::int32_t reload_incremental(std::uint32_t /*minor*/, const char* /*blockDevice*/,
                                    const char* /*cowFile*/, std::uint64_t /*cacheSize*/) override {
        return unexpected("reload_incremental");
    }
    std::int32_t reconfigure(std::uint32_t /*minor*/, std::uint64_t /*cacheSize*/) override {
        return unexpected("reconfigure");
    }

private:
    /// The agent doesn't call these functions. If it does, the call is recorded and fails.
    std::int32_t unexpected(const std::string& call) {
        driver.record(call);
        errno = ENOSYS;
        return -1;
    }

    FakeDriver& driver;
};

} // namespace agent::test
