#pragma once

#include "info/IDriverInfoProvider.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /v2/install: whether the machine must be restarted to complete the installation.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws std::runtime_error if the driver's state can't be read.
class Install {
public:
    explicit Install(const IDriverInfoProvider& driverInfo) : driverInfo(driverInfo) {}
    APIResponse operator()() const;

private:
    const IDriverInfoProvider& driverInfo;
};

} // namespace agent::ordak
