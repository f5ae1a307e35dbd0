#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace agent::info {

/// What the driver's control library may tell beyond its seven functions.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   see each.
class IDriverExtension {
public:
    IDriverExtension() = default;
    IDriverExtension(const IDriverExtension&) = delete;
    IDriverExtension& operator=(const IDriverExtension&) = delete;
    IDriverExtension(IDriverExtension&&) = delete;
    IDriverExtension& operator=(IDriverExtension&&) = delete;
    virtual ~IDriverExtension() = default;

    /// 0 while /dev/tolvu<minor> has shown the one moment of its snapshot all the time; else a value of
    /// `errno`, and nothing that was read of it can be relied on.
    [[nodiscard]] virtual int checkSnapshot(std::int32_t minor) const = 0;
    /// The names of the files that the driver keeps at the root of a volume beside its CoW files.
    [[nodiscard]] virtual std::vector<std::string> getOwnFiles() const = 0;
    /// How many bytes of a volume the driver will take for a snapshot, beside the CoW file. PosixError if it
    /// can't tell.
    [[nodiscard]] virtual std::uint64_t getRoom(const std::string& blockDevice) const = 0;
};

} // namespace agent::info
