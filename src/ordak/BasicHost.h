#pragma once

#include "info/SystemInfoProvider.h"
#include "info/log/Logger.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /basichost: the properties of the machine that a device may know before it is paired.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   never; the response contains "[ERROR]" for a property that isn't available.
class BasicHost {
public:
    BasicHost(info::Logger& logger, const info::SystemInfoProvider& systemInfo)
        : logger(logger), systemInfo(systemInfo) {}
    APIResponse operator()() const;

private:
    info::Logger& logger;
    const info::SystemInfoProvider& systemInfo;
};

} // namespace agent::ordak
