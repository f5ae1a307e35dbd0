#pragma once

#include "info/BaseController.h"
#include "model/World.h"

#include <functional>
#include <optional>

namespace agent::model {

/// The snapshot driver as its contract describes it, for volumes of a few numbers: states, alternating CoW
/// files, bitmaps of changes, refusals while a device is in use, devices that are dormant after a restart.
/// Owns:    nothing; its state is in the World, so that like a real driver's it survives the killed process.
/// Threads: one.
/// Fails:   like the driver's library: returns -1 with `errno` and nothing changed, unless a fault hits after
///          the effect.
class ModelDriver : public info::BaseController {
public:
    explicit ModelDriver(World& world) : world(world) {}

    std::int32_t setup_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                std::uint64_t cowSizeMiB, std::uint64_t cacheSize) override;
    std::int32_t transition_snapshot(std::uint32_t minor, const char* cowFile,
                                     std::uint64_t cowSizeMiB) override;
    std::int32_t transition_incremental(std::uint32_t minor) override;
    std::int32_t destroy(std::uint32_t minor) override;
    std::int32_t reload_snapshot(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                 std::uint64_t cacheSize) override;
    std::int32_t reload_incremental(std::uint32_t minor, const char* blockDevice, const char* cowFile,
                                    std::uint64_t cacheSize) override;
    std::int32_t reconfigure(std::uint32_t minor, std::uint64_t cacheSize) override;

    /// Restarts the machine.
    void restart();
    /// Runs the existing reload scripts, as the machine does after a restart.
    void runReloadScripts();
    /// Writes the status file that lists the devices.
    void publish();

private:
    std::int32_t call(const std::function<int()>& work);
    std::optional<std::size_t> find(std::uint32_t minor) const;
    int takeSnapshot(std::size_t index, const char* cowFile);
    void closeRecord(std::size_t index, const Device& device);
    [[nodiscard]] std::string cowFileOf(std::size_t index) const;

    World& world;
};

/// A CoW file: a header, and a word for each unit of the volume.
constexpr std::uint32_t cowHeaderSize = 4096;
constexpr std::uint32_t cowFileSize = cowHeaderSize + 8 * unitCount;

/// The name of the first or second CoW file, with the leading slash that the driver shows.
std::string cowName(bool isSecond);

/// Whether something is mounted where the volume's snapshot is mounted.
bool isSnapshotMounted(std::size_t index);

} // namespace agent::model
