#pragma once

#include <string>

namespace agent {

/// Reports the version and the state of the snapshot driver.
/// Owns:    nothing.
/// Threads: any thread may call it.
/// Fails:   the functions throw std::runtime_error if the driver isn't loaded or its files can't be read.
class IDriverInfoProvider {
public:
    virtual ~IDriverInfoProvider() = default;
    [[nodiscard]] virtual std::string getDriverVersion() const = 0;
    [[nodiscard]] virtual bool isRebootRequired() const = 0;
    /// The driver's own description of its state, as JSON text.
    [[nodiscard]] virtual std::string getDriverStatus() const = 0;
};

} // namespace agent
