#pragma once

#include "info/IDriverExtension.h"

namespace agent::info {

/// Calls the linked control library if that library emulates the kernel driver. The kernel driver's own
/// library doesn't have these functions: if one of its snapshots fails, reading from it fails, and it keeps
/// no other files. See IDriverExtension.
class DriverExtension : public IDriverExtension {
public:
    [[nodiscard]] int checkSnapshot(std::int32_t minor) const override;
    [[nodiscard]] std::vector<std::string> getDriverFiles() const override;
    [[nodiscard]] std::uint64_t getSnapshotSpace(const std::string& blockDevice) const override;
};

} // namespace agent::info
