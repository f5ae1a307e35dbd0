#pragma once

#include "common/config/IConfigData.h"
#include "ordak/APIResponse.h"

namespace agent::ordak {

/// GET /config: the options that have been set.
/// Threads: any thread may call it.
class ConfigGet {
public:
    explicit ConfigGet(const IConfigData& config) : config(config) {}
    APIResponse operator()() const;

private:
    const IConfigData& config;
};

} // namespace agent::ordak
