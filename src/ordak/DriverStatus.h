#pragma once

#include "info/IDriverInfoProvider.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /v2/driver/status: the snapshot driver's own description of its state.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   never; if the driver isn't loaded or its status can't be read, the response says "Not Available".
class DriverStatus {
public:
    explicit DriverStatus(const IDriverInfoProvider& driverInfo) : driverInfo(driverInfo) {}
    APIResponse operator()() const;

private:
    const IDriverInfoProvider& driverInfo;
};

} // namespace agent::ordak
