#pragma once

#include "info/DriverStatusFiles.h"
#include "info/IDriverInfoProvider.h"

namespace agent::info {

/// Reads the files in which the snapshot driver shows its state. See IDriverInfoProvider.
class DriverInfoProvider : public IDriverInfoProvider {
public:
    explicit DriverInfoProvider(FindDriverStatusFiles findStatusFiles = DriverStatusFiles::ofRunningDriver);

    [[nodiscard]] std::string getDriverVersion() const override;
    /// Always false: the driver is loaded and replaced without a restart of the machine.
    [[nodiscard]] bool isRebootRequired() const override;
    [[nodiscard]] std::string getDriverStatus() const override;

private:
    FindDriverStatusFiles findStatusFiles;
};

} // namespace agent::info
