#pragma once

#include "common/config/IConfigData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /config: the options that have been set.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   never, unless memory runs out.
class ConfigGet {
public:
    explicit ConfigGet(const IConfigData& config) : config(config) {}
    APIResponse operator()() const;

private:
    const IConfigData& config;
};

} // namespace agent::ordak
