#pragma once

#include "common/config/IConfigData.h"
#include "ordak/APIResponse.h"
#include "os/Mutex.h"

namespace agent::ordak {

/// POST /config: sets the options of a JSON object, all or none of them.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws exception::bad_request if the body isn't JSON or contains a pair that can't be set.
class ConfigSet {
public:
    explicit ConfigSet(IConfigData& config) : config(config) {}
    APIResponse operator()(const std::string& body);

private:
    IConfigData& config;
    os::Mutex mutex; // one change at a time, as the configuration requires
};

} // namespace agent::ordak
