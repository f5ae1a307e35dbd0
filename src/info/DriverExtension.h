#pragma once

#include "info/IDriverExtension.h"

namespace agent::info {

/// Asks the linked control library, if it is one that stands in for the kernel's driver. The kernel driver's
/// own library has nothing to add: its snapshots fail only by reads that fail, and it has no further files.
/// See IDriverExtension.
class DriverExtension : public IDriverExtension {
public:
    [[nodiscard]] int checkSnapshot(std::int32_t minor) const override;
    [[nodiscard]] std::vector<std::string> getOwnFiles() const override;
    [[nodiscard]] std::uint64_t getRoom(const std::string& blockDevice) const override;
};

} // namespace agent::info
