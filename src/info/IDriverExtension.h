#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent::info {

/// Queries that the driver's control library may offer in addition to its seven functions.
/// Owns:    nothing.
/// Threads: any thread may call it.
/// Fails:   `checkSnapshot` returns an error code, `getSnapshotSpace` throws PosixError, `getDriverFiles`
///          doesn't fail.
class IDriverExtension {
public:
    IDriverExtension() = default;
    IDriverExtension(const IDriverExtension&) = delete;
    IDriverExtension& operator=(const IDriverExtension&) = delete;
    IDriverExtension(IDriverExtension&&) = delete;
    IDriverExtension& operator=(IDriverExtension&&) = delete;
    virtual ~IDriverExtension() = default;

    /// Returns 0 if /dev/tolvu<minor> has shown a consistent snapshot ever since it was taken. Otherwise
    /// returns an `errno` value: then nothing that was read from the device can be relied on.
    [[nodiscard]] virtual int checkSnapshot(std::int32_t minor) const = 0;
    /// The names of the files, other than CoW files, that the driver keeps in the root directory of a volume.
    [[nodiscard]] virtual std::vector<std::string> getDriverFiles() const = 0;
    /// How many bytes of the volume's free space the driver will use for a snapshot in addition to the CoW
    /// file. Throws PosixError if the driver can't determine it.
    [[nodiscard]] virtual std::uint64_t getSnapshotSpace(const std::string& blockDevice) const = 0;
};

} // namespace agent::info
