#include "Status.h"

#include "AtomicFile.h"
#include "Layout.h"

#include <nlohmann/json.hpp>

#include <system_error>

namespace tolvubd {

namespace {

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
        showFile(path, text, readableByAll);
    }
}

} // namespace

std::string statusText(const Table& table) {
    nlohmann::ordered_json devices = nlohmann::ordered_json::array();
    for (const Device& device : table.devices) {
        devices.push_back({{"minor", device.minor},
                           {"cow_file", device.cowFile},
                           {"block_device", device.blockDevice},
                           {"state", static_cast<std::uint32_t>(device.mode)},
                           {"error", 0}});
    }
    const nlohmann::ordered_json document = {{"version", driverVersion}, {"devices", devices}};
    return document.dump(4) + "\n";
}

void publish(const Table& table) {
    show(layout::version, std::string(driverVersion) + "\n");
    show(layout::info, statusText(table));
}

} // namespace tolvubd
