#pragma once

#include "info/SystemInfoProvider.h"
#include "info/log/Logger.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /basichost: what a device may know of the machine before it is paired.
/// Threads: safe from any.
/// Fails:   never; see hostFact.
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
