#include "Table.h"

#include "JsonFields.h"

#include <algorithm>
#include <bit>
#include <limits>
#include <set>

namespace tolvubd {

namespace {

using fields::absolutePath;
using fields::dump;
using fields::fromExtents;
using fields::fromList;
using fields::number;
using fields::parse;
using fields::require;
using fields::toExtents;
using fields::toList;
using fields::uuid;
using nlohmann::json;

constexpr int format = 2;
/// How deep the table's text is nested: document, list of devices, device, layers, list of numbers.
constexpr int deepest = 5;
constexpr std::uint64_t largestFile = std::numeric_limits<std::int64_t>::max();
constexpr std::uint64_t any = std::numeric_limits<std::uint64_t>::max();

json fromLayers(const Layers& layers) {
    return {{"id", layers.id},
            {"volume", layers.volume},
            {"era_file", fromExtents(layers.eraFile)},
            {"cow_store", fromExtents(layers.cowStore)},
            {"block_sectors", layers.blockSectors},
            {"first_era", layers.snapshotEra},
            {"groups", layers.usedGroups},
            {"needs", layers.preservedBytes},
            {"error", layers.error}};
}

/// The number of 4096-byte units in a block must be a power of two.
bool isBlockSize(std::uint64_t sectors) {
    return sectors >= 8 && std::has_single_bit(sectors);
}

Layers toLayers(const json& object) {
    constexpr std::uint64_t largestBlock = 2048;
    Layers layers;
    layers.id = uuid(object, "id");
    layers.volume = object.at("volume").get<std::string>();
    layers.eraFile = toExtents(object.at("era_file"));
    layers.cowStore = toExtents(object.at("cow_store"));
    layers.blockSectors = static_cast<std::uint32_t>(number(object, "block_sectors", largestBlock));
    require(isBlockSize(layers.blockSectors), "block_sectors");
    layers.snapshotEra =
        static_cast<std::uint32_t>(number(object, "first_era", std::numeric_limits<std::uint32_t>::max()));
    layers.usedGroups = object.at("groups").get<std::string>();
    layers.preservedBytes = object.at("needs").get<std::vector<std::uint64_t>>();
    layers.error = static_cast<int>(number(object, "error", std::numeric_limits<int>::max()));
    return layers;
}

json fromDevice(const Device& device) {
    json object = {{"minor", device.minor},
                   {"state", static_cast<std::uint32_t>(device.mode)},
                   {"block_device", device.blockDevice},
                   {"cow_file", device.cowFile},
                   {"snapshot", device.snapshot},
                   {"size", device.size},
                   {"cache_size", device.cacheSize},
                   {"own", fromExtents(device.ownFileExtents)}};
    if (device.layers) {
        object["layers"] = fromLayers(*device.layers);
    }
    if (!device.whyCaptured.empty()) {
        object["reason"] = device.whyCaptured;
    }
    return object;
}

Device toDevice(const json& object) {
    Device device;
    device.minor = static_cast<std::uint32_t>(number(object, "minor", highestMinor));
    device.mode = static_cast<Mode>(number(object, "state", static_cast<std::uint64_t>(Mode::snapshot)));
    require(device.mode == Mode::tracking || device.mode == Mode::snapshot, "state");
    device.blockDevice = absolutePath(object, "block_device");
    device.cowFile = absolutePath(object, "cow_file");
    device.snapshot = uuid(object, "snapshot");
    device.size = number(object, "size", largestFile);
    device.cacheSize = number(object, "cache_size", any);
    device.ownFileExtents = toExtents(object.at("own"));
    if (object.contains("layers")) {
        device.layers = toLayers(object.at("layers"));
    }
    device.whyCaptured = object.value("reason", "");
    return device;
}

json fromUnfinished(const Unfinished& unfinished) {
    json object = {{"snapshot", unfinished.snapshot}, {"cow_file", unfinished.cowFile}};
    if (!unfinished.mountPoint.empty()) {
        object["mount_point"] = unfinished.mountPoint;
    }
    if (unfinished.server) {
        object["server"] = unfinished.server->number;
        object["server_started"] = unfinished.server->started;
    }
    if (!unfinished.layers.empty()) {
        object["layers"] = unfinished.layers;
    }
    return object;
}

Unfinished toUnfinished(const json& object) {
    Unfinished unfinished{uuid(object, "snapshot"), absolutePath(object, "cow_file"), {}, {}};
    if (object.contains("mount_point")) {
        unfinished.mountPoint = absolutePath(object, "mount_point");
    }
    if (object.contains("server")) {
        constexpr std::uint64_t highestProcess = std::numeric_limits<pid_t>::max();
        unfinished.server = ProcessName{static_cast<pid_t>(number(object, "server", highestProcess)),
                                        number(object, "server_started", any)};
    }
    if (object.contains("layers")) {
        unfinished.layers = uuid(object, "layers");
    }
    return unfinished;
}

void requireDistinct(const std::vector<Device>& devices) {
    std::set<std::uint32_t> minors;
    std::set<std::string> snapshots;
    for (const Device& device : devices) {
        require(minors.insert(device.minor).second, "a minor twice");
        require(snapshots.insert(device.snapshot).second, "a snapshot twice");
    }
}

} // namespace

const Device* findDevice(const Table& table, std::uint32_t minor) {
    const auto found = std::ranges::find(table.devices, minor, &Device::minor);
    return found == table.devices.end() ? nullptr : &*found;
}

std::string writeDevice(const Device& device) {
    return dump(fromDevice(device));
}

Device readDevice(const std::string& text) {
    return toDevice(parse(text, deepest));
}

std::string writeTable(const Table& table) {
    const json document = {{"format", format},
                           {"session", table.session},
                           {"devices", fromList(table.devices, fromDevice)},
                           {"asleep", fromList(table.asleep, fromDevice)},
                           {"unfinished", fromList(table.unfinished, fromUnfinished)}};
    return dump(document);
}

Table readTable(const std::string& text) {
    const json document = parse(text, deepest);
    require(document.at("format") == format, "format");
    Table table;
    table.session = uuid(document, "session");
    table.devices = toList(document.at("devices"), highestMinor + 1, toDevice);
    table.asleep = toList(document.at("asleep"), mostAsleep, toDevice);
    requireDistinct(table.devices);
    table.unfinished = toList(document.at("unfinished"), mostUnfinished, toUnfinished);
    return table;
}

} // namespace tolvubd
