#pragma once

#include "info/IDriverInfoProvider.h"

namespace agent::info {

/// Reads what the snapshot driver tells of itself below /proc and /sys. See IDriverInfoProvider.
class DriverInfoProvider : public IDriverInfoProvider {
public:
    [[nodiscard]] std::string getDriverVersion() const override;
    /// Never: the driver is loaded and replaced without a restart of the machine.
    [[nodiscard]] bool isRebootRequired() const override;
    [[nodiscard]] std::string getDriverStatus() const override;
};

} // namespace agent::info
