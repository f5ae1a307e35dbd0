#include "Status.h"

#include "AtomicFile.h"
#include "Layout.h"
#include "mapper/Forecast.h"
#include "mapper/Targets.h"

#include <nlohmann/json.hpp>

#include <system_error>

namespace tolvubd {

namespace {

using nlohmann::ordered_json;

constexpr unsigned readableByAll = 0644;

bool shows(const char* path, const std::string& text) {
    try {
        return readFile(path, text.size()) == text;
    } catch (const std::system_error&) {
        return false;
    }
}

void show(const char* path, const std::string& text) {
    if (!shows(path, text)) {
        replaceFileWithoutSync(path, text, readableByAll);
    }
}

/// Adds to the kernel driver's fields how many bytes the snapshot can preserve, and how many it is likely to
/// need.
ordered_json fromDevice(const Device& device) {
    ordered_json object = {{"minor", device.minor},
                           {"cow_file", device.cowFile},
                           {"block_device", device.blockDevice},
                           {"state", static_cast<std::uint32_t>(device.mode)},
                           {"error", device.layers ? device.layers->error : 0}};
    if (device.layers) {
        object["snapshot_room"] = bytesIn(device.layers->cowStore);
        object["snapshot_need"] = forecastNeed(*device.layers);
    }
    return object;
}

} // namespace

std::string statusText(const Table& table) {
    ordered_json devices = ordered_json::array();
    for (const Device& device : table.devices) {
        devices.push_back(fromDevice(device));
    }
    const ordered_json document = {{"version", driverVersion}, {"devices", devices}};
    return document.dump(4) + "\n";
}

void publish(const Table& table) {
    show(layout::version, std::string(driverVersion) + "\n");
    show(layout::info, statusText(table));
}

} // namespace tolvubd
