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
    virtual std::string getDriverVersion() = 0;
    virtual bool isRebootRequired() = 0;
    /// The driver's own description of its state, JSON.
    virtual std::string getDriverStatus() = 0;
};

} // namespace agent
