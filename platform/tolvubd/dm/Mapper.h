#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// The kernel's device-mapper, through its library. Sizes and offsets are in sectors of 512 bytes.
///
/// Threads: any, but only one at a time.
/// Fails:   std::system_error with the kernel's errno: ENXIO for a device that doesn't exist.
namespace tolvubd::dm {

inline constexpr std::uint64_t sector = 512; ///< bytes, whatever the disk's sector size is

struct Target {
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    std::string type;
    std::string parameters; ///< as the kernel prints them: devices as MAJOR:MINOR

    bool operator==(const Target&) const = default;
};
using Targets = std::vector<Target>;

/// A device, identified by what doesn't change while it exists.
struct Device {
    std::string name;
    std::string uuid;
    dev_t number = 0;
};

struct State {
    bool isSuspended = false;
    bool hasTable = false;    ///< live
    bool hasNewTable = false; ///< loaded, not yet live
    std::uint32_t openCount = 0;
};

/// How udev treats a device.
enum class Visibility {
    hidden, ///< only device-mapper's own rules see it: it isn't probed and gets no link by UUID
    shown,  ///< as usual: for a volume that isn't ours, and whose table is exchanged
};

/// None when there is no such device, or no device-mapper.
std::optional<Device> findByNumber(dev_t number);
std::optional<Device> findByUuid(const std::string& uuid);
/// All devices whose UUID has this prefix.
std::vector<Device> findByPrefix(const std::string& prefix);

State stateOf(const Device& device);
Targets liveTable(const Device& device);
/// The status of each target, in `parameters`.
Targets liveStatus(const Device& device);
std::uint64_t sizeOf(const Targets& targets);

/// Creates a device without a table. The kernel makes its node, /dev/dm-MINOR.
Device create(const std::string& name, const std::string& uuid);
/// Loads a table, which becomes live with the next resume.
void load(const Device& device, const Targets& targets);
/// Discards a table that was loaded and isn't live yet.
void clear(const Device& device);
void suspend(const Device& device, bool withFileSystem);
void resume(const Device& device, Visibility visibility);
/// Retries for ten seconds, because udev may have the device open. Throws EBUSY when it stays in use.
void remove(const Device& device);
std::string message(const Device& device, const std::string& text);

} // namespace tolvubd::dm
