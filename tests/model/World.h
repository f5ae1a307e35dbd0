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
constexpr std::size_t headUnits = 3; ///< what the checksum of an image covers
constexpr std::uint64_t unitSize = 4096;

using info::driver_state::activeSnapshot;
using info::driver_state::noDevice;
using info::driver_state::tracking;

/// Each unit of a volume or an image is one number.
using Units = std::array<std::uint32_t, unitCount>;

/// What the driver keeps of one volume.
struct Device {
    std::int32_t state = noDevice;
    std::int32_t minor = 0;
    std::int32_t error = 0;
    bool isAsleep = false; ///< the machine was restarted, and nothing has given the device back
    bool isByUuid = false; ///< it was given back under the volume's UUID
    bool isSecondCow = false;
    std::uint32_t snapshot = 0; ///< stands in the header of its CoW file
    Units baseline{};           ///< the volume at the last snapshot
};

struct VolumeState {
    Units content{};
    Units image{};
    Device device;
    bool isKnown = false;       ///< whether the database has a row
    std::uint32_t checksum = 0; ///< of the image, in that row
};

/// All that outlives a killed process and isn't a file. It lies in memory that a child shares.
struct State {
    std::array<VolumeState, volumeCount> volumes;
    std::uint32_t stamp = 1; ///< the last number that was given out
};

/// Volumes with their images, the driver's state, and the files that the driver and the agent keep.
/// Owns:    the shared state and the directories of the volumes, both gone with the object.
/// Threads: one; a forked child may go on with it while its parent waits.
/// Fails:   by std::runtime_error when the machine refuses memory or a directory.
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

    /// A number that stands nowhere else.
    std::uint32_t newStamp() { return ++shared->stamp; }
    /// Volumes with content, blank images, no device, no file.
    void reset();

private:
    test::TestDirectory directory;
    State* shared;
};

} // namespace agent::model
