#pragma once

#include "info/IDriverInfoProvider.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /v2/install: whether the machine must be restarted to complete the installation.
/// Threads: any thread may call it.
class Install {
public:
    explicit Install(const IDriverInfoProvider& driverInfo) : driverInfo(driverInfo) {}
    APIResponse operator()() const;

private:
    const IDriverInfoProvider& driverInfo;
};

} // namespace agent::ordak
