#pragma once

#include <string>

namespace agent {

/// What is known of the snapshot driver.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   std::runtime_error if the driver is not there or doesn't tell.
class IDriverInfoProvider {
public:
    virtual ~IDriverInfoProvider() = default;
    [[nodiscard]] virtual std::string getDriverVersion() const = 0;
    [[nodiscard]] virtual bool isRebootRequired() const = 0;
    /// The driver's own description of its state, JSON.
    [[nodiscard]] virtual std::string getDriverStatus() const = 0;
};

} // namespace agent
