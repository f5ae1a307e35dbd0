#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// The kernel's device-mapper, through its library. Sizes and places are in sectors.
///
/// Threads: any, as the library keeps no state of its own here; callers take turns.
/// Fails:   std::system_error with the kernel's errno: ENXIO for a device that isn't there.
namespace tolvubd::dm {

inline constexpr std::uint64_t sector = 512; ///< bytes, whatever the disk has

struct Target {
    std::uint64_t start = 0;
    std::uint64_t length = 0;
    std::string type;
    std::string parameters; ///< as the kernel prints them: devices as MAJOR:MINOR

    bool operator==(const Target&) const = default;
};
using Targets = std::vector<Target>;

/// A device, by what doesn't change while it lives.
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

/// How udev is told of a device.
enum class Visibility {
    hidden, ///< no rule but device-mapper's own looks at it, nobody probes it, it gets no link by UUID
    shown,  ///< as before: for a volume of somebody else's whose table is exchanged
};

/// None when there is no such device, or no device-mapper.
std::optional<Device> findByNumber(dev_t number);
std::optional<Device> findByUuid(const std::string& uuid);
/// All devices whose UUID begins so.
std::vector<Device> findByPrefix(const std::string& prefix);

State stateOf(const Device& device);
Targets liveTable(const Device& device);
/// What the targets say of themselves, in `parameters`.
Targets liveStatus(const Device& device);
std::uint64_t sizeOf(const Targets& targets);

/// Makes a device without a table. Its node is /dev/dm-MINOR, which the kernel makes.
Device create(const std::string& name, const std::string& uuid);
/// Gives the device a table, which becomes live with the next resume.
void load(const Device& device, const Targets& targets);
/// Takes a table away that isn't live yet.
void clear(const Device& device);
void suspend(const Device& device, bool withFileSystem);
void resume(const Device& device, Visibility visibility);
/// Tries again for some seconds, as udev may have it open. EBUSY when it stays in use.
void remove(const Device& device);
std::string message(const Device& device, const std::string& text);

} // namespace tolvubd::dm
