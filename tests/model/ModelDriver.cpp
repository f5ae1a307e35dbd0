#include "model/ModelDriver.h"

#include "common/File.h"
#include "info/VolumeFiles.h"
#include "model/FaultPlan.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

namespace agent::model {

namespace {

constexpr std::uint32_t magic = 4776;
constexpr std::size_t snapshotOffset = 32;
constexpr std::size_t countOffset = 56;

template <typename Number>
void put(std::string& bytes, std::size_t offset, Number number) {
    std::memcpy(bytes.data() + offset, &number, sizeof number);
}

std::string cowContent(std::uint32_t snapshot, const std::array<std::uint64_t, unitCount>& table) {
    std::string bytes(cowFileSize, '\0');
    std::uint64_t changed = 0;
    for (const std::uint64_t word : table) {
        changed += word != 0 ? 1 : 0;
    }
    put(bytes, 0, magic);
    put(bytes, snapshotOffset, snapshot);
    put(bytes, countOffset, changed);
    std::memcpy(bytes.data() + cowHeaderSize, table.data(), sizeof table);
    return bytes;
}

std::optional<std::uint32_t> snapshotIn(const std::string& cowFile) {
    const std::string bytes = test::readFile(cowFile);
    if (bytes.size() < cowHeaderSize) {
        return std::nullopt;
    }
    std::uint32_t snapshot = 0;
    std::memcpy(&snapshot, bytes.data() + snapshotOffset, sizeof snapshot);
    return snapshot;
}

} // namespace

std::string cowName(bool isSecond) {
    return std::string("/") + (isSecond ? info::volume_files::secondCow : info::volume_files::firstCow);
}

bool isSnapshotMounted(std::size_t index) {
    struct ::stat inner{};
    struct ::stat outer{};
    const std::string path = World::snapshotMountOf(index);
    return ::stat(path.c_str(), &inner) == 0 && ::stat((path + "/..").c_str(), &outer) == 0 &&
           inner.st_dev != outer.st_dev;
}

/// Runs `work`, which returns 0 or an error, with a fault step before and after it.
std::int32_t ModelDriver::call(const std::function<int()>& work) {
    if (fails(Step::call)) {
        errno = EIO;
        return -1;
    }
    const int error = [&] {
        const FaultsSuspended driver;
        const int result = work();
        publish();
        return result;
    }();
    if (error != 0 || fails(Step::call)) {
        errno = error != 0 ? error : EIO;
        return -1;
    }
    return 0;
}

std::optional<std::size_t> ModelDriver::find(std::uint32_t minor) const {
    for (std::size_t index = 0; index < volumeCount; ++index) {
        const Device& device = world.volume(index).device;
        if (device.state != noDevice && !device.isDormant &&
            device.minor == static_cast<std::int32_t>(minor)) {
            return index;
        }
    }
    return std::nullopt;
}

std::string ModelDriver::cowFileOf(std::size_t index) const {
    return world.mountPointOf(index) + cowName(world.volume(index).device.isSecondCow);
}

std::int32_t ModelDriver::setup_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                         std::uint64_t /*cowSizeMiB*/, std::uint64_t /*cacheSize*/) {
    return call([&] {
        for (std::size_t index = 0; index < volumeCount; ++index) {
            if (blockDevice != World::devicePathOf(index)) {
                continue;
            }
            Device& device = world.volume(index).device;
            if (find(minor) || (device.state != noDevice && !device.isDormant)) {
                return EBUSY;
            }
            device = Device();
            device.minor = static_cast<std::int32_t>(minor);
            return takeSnapshot(index, cowFile);
        }
        return ENODEV;
    });
}

int ModelDriver::takeSnapshot(std::size_t index, const char* cowFile) {
    VolumeState& volume = world.volume(index);
    volume.device.state = activeSnapshot;
    volume.device.error = 0;
    volume.device.isSecondCow = std::string(cowFile).ends_with(cowName(true));
    volume.device.snapshot = world.newStamp();
    volume.device.baseline = volume.content;
    test::writeFile(cowFile, cowContent(volume.device.snapshot, {}));
    return 0;
}

std::int32_t ModelDriver::transition_snapshot(std::uint32_t minor, const char* cowFile,
                                              std::uint64_t /*cowSizeMiB*/) {
    return call([&] {
        const auto index = find(minor);
        if (!index || world.volume(*index).device.state != tracking) {
            return index ? EINVAL : ENOENT;
        }
        const Device before = world.volume(*index).device;
        if (!file::exists(cowFileOf(*index))) {
            return ENOENT;
        }
        closeRecord(*index, before);
        return takeSnapshot(*index, cowFile);
    });
}

/// Writes the bitmap of changed units. After a driver error it is empty, since changes were no longer
/// tracked.
void ModelDriver::closeRecord(std::size_t index, const Device& device) {
    std::array<std::uint64_t, unitCount> table{};
    for (std::size_t unit = 0; unit < unitCount && device.error == 0; ++unit) {
        table.at(unit) = device.baseline.at(unit) != world.volume(index).content.at(unit) ? 1 : 0;
    }
    test::writeFile(cowFileOf(index), cowContent(device.snapshot, table));
}

std::int32_t ModelDriver::transition_incremental(std::uint32_t minor) {
    return call([&] {
        const auto index = find(minor);
        if (!index || world.volume(*index).device.state != activeSnapshot) {
            return index ? EINVAL : ENOENT;
        }
        if (isSnapshotMounted(*index)) {
            return EBUSY;
        }
        world.volume(*index).device.state = tracking;
        return 0;
    });
}

std::int32_t ModelDriver::destroy(std::uint32_t minor) {
    return call([&] {
        const auto index = find(minor);
        if (!index) {
            return ENOENT;
        }
        if (world.volume(*index).device.state == activeSnapshot && isSnapshotMounted(*index)) {
            return EBUSY;
        }
        if (file::exists(cowFileOf(*index))) {
            file::remove(cowFileOf(*index));
        }
        world.volume(*index).device = Device();
        return 0;
    });
}

std::int32_t ModelDriver::reload_incremental(std::uint32_t minor, const char* blockDevice,
                                             const char* cowFile, std::uint64_t /*cacheSize*/) {
    return call([&] {
        for (std::size_t index = 0; index < volumeCount; ++index) {
            Device& device = world.volume(index).device;
            if (blockDevice != "/dev/disk/by-uuid/" + World::uuidOf(index)) {
                continue;
            }
            const bool fits = device.isDormant && device.state == tracking &&
                              snapshotIn(world.mountPointOf(index) + cowFile) == device.snapshot;
            if (!fits || find(minor)) {
                return ENOENT;
            }
            device.isDormant = false;
            device.isByUuid = true;
            device.minor = static_cast<std::int32_t>(minor);
            return 0;
        }
        return ENODEV;
    });
}

// The agent doesn't use these functions.
std::int32_t ModelDriver::reload_snapshot(std::uint32_t /*minor*/, const char* /*blockDevice*/,
                                          const char* /*cowFile*/, std::uint64_t /*cacheSize*/) {
    return call([] { return ENOSYS; });
}

std::int32_t ModelDriver::reconfigure(std::uint32_t /*minor*/, std::uint64_t /*cacheSize*/) {
    return call([] { return ENOSYS; });
}

void ModelDriver::restart() {
    for (VolumeState& volume : world.state().volumes) {
        volume.device.isDormant = volume.device.state != noDevice;
    }
    publish();
}

void ModelDriver::runReloadScripts() {
    for (std::int32_t minor = 0; minor < static_cast<std::int32_t>(volumeCount); ++minor) {
        std::istringstream script(test::readFile(World::reloadScriptOf(minor)));
        for (std::string line; std::getline(script, line);) {
            std::istringstream words(line);
            std::string program;
            std::string command;
            std::string device;
            std::string cowFile;
            std::uint32_t wanted = 0;
            if (words >> program >> command >> device >> cowFile >> wanted &&
                command == "reload-incremental") {
                reload_incremental(wanted, device.c_str(), cowFile.c_str(), 0);
            }
        }
    }
}

void ModelDriver::publish() {
    nlohmann::json devices = nlohmann::json::array();
    for (std::size_t index = 0; index < volumeCount; ++index) {
        const Device& device = world.volume(index).device;
        if (device.state != noDevice && !device.isDormant) {
            devices.push_back({{"minor", device.minor},
                               {"state", device.state},
                               {"cow_file", cowName(device.isSecondCow)},
                               {"block_device", device.isByUuid ? "/dev/disk/by-uuid/" + World::uuidOf(index)
                                                                : World::devicePathOf(index)},
                               {"error", device.error}});
        }
    }
    test::writeFile(world.statusFile(), nlohmann::json{{"version", "0.9.16"}, {"devices", devices}}.dump());
}

} // namespace agent::model
