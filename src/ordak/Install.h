#pragma once

#include "info/IDriverInfoProvider.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /v2/install: whether what has been installed waits for a restart of the machine.
/// Threads: safe from any.
class Install {
public:
    explicit Install(const IDriverInfoProvider& driverInfo) : driverInfo(driverInfo) {}
    APIResponse operator()() const;

private:
    const IDriverInfoProvider& driverInfo;
};

} // namespace agent::ordak
