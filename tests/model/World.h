#pragma once

#include "info/DriverState.h"
#include "support/TestDirectory.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace agent::model {

constexpr std::size_t volumeCount = 2;
constexpr std::size_t unitCount = 24;
constexpr std::size_t headUnits = 3; ///< how much the checksum of an image covers
constexpr std::uint64_t unitSize = 4096;

using info::driver_state::activeSnapshot;
using info::driver_state::noDevice;
using info::driver_state::tracking;

/// A volume or an image; each unit's content is one number.
using Units = std::array<std::uint32_t, unitCount>;

/// The driver's state for one volume.
struct Device {
    std::int32_t state = noDevice;
    std::int32_t minor = 0;
    std::int32_t error = 0;
    bool isDormant = false; ///< the machine was restarted, and the device not yet reloaded
    bool isByUuid = false;  ///< the device was reloaded by the volume's UUID
    bool isSecondCow = false;
    std::uint32_t snapshot = 0; ///< stored in the header of its CoW file
    Units baseline{};           ///< the volume's content at the last snapshot
};

struct VolumeState {
    Units content{};
    Units image{};
    Device device;
    bool isKnown = false;       ///< whether the database has a row for it
    std::uint32_t checksum = 0; ///< of the image, in that row
};

/// The state that isn't in files and survives a killed process. It is in memory shared with child processes.
struct State {
    std::array<VolumeState, volumeCount> volumes;
    std::uint32_t stamp = 1; ///< the last stamp that was used
};

/// Volumes with their images, the driver's state, and the files that the driver and the agent keep.
/// Owns:    the shared state and the directories of the volumes; the destructor removes both.
/// Threads: one; a forked child may use it while its parent waits.
/// Fails:   throws std::runtime_error if memory can't be allocated or a directory can't be made.
class World {
public:
    World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();

    [[nodiscard]] State& state() const { return *shared; }
    [[nodiscard]] VolumeState& volume(std::size_t index) const { return shared->volumes.at(index); }

    [[nodiscard]] static std::string uuidOf(std::size_t index);
    [[nodiscard]] static std::string devicePathOf(std::size_t index);
    [[nodiscard]] static std::string snapshotMountOf(std::size_t index);
    [[nodiscard]] static std::string reloadScriptOf(std::int32_t minor);
    [[nodiscard]] std::string mountPointOf(std::size_t index) const;
    [[nodiscard]] std::string historyOf(std::size_t index) const;
    [[nodiscard]] std::string statusFile() const;

    /// A number that isn't used anywhere yet.
    std::uint32_t newStamp() { return ++shared->stamp; }
    /// Gives volumes new content and blank images, and removes all devices and files.
    void reset();

private:
    test::TestDirectory directory;
    State* shared;
};

} // namespace agent::model
