#pragma once

#include "info/IDriverInfoProvider.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /v2/driver/status: what the snapshot driver tells of itself.
/// Threads: safe from any.
/// Fails:   never for a driver that isn't there or can't be read; the answer says so.
class DriverStatus {
public:
    explicit DriverStatus(const IDriverInfoProvider& driverInfo) : driverInfo(driverInfo) {}
    APIResponse operator()() const;

private:
    const IDriverInfoProvider& driverInfo;
};

} // namespace agent::ordak
