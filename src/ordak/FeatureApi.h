#pragma once

#include "info/log/Logger.h"
#include "ordak/APIResponse.h"
#include "ordak/FeatureManager.h"

namespace agent::ordak {

/// GET /v2/feature: the features of this agent.
/// Threads: safe from any.
/// Fails:   std::out_of_range for a feature that isn't there, the JSON library's errors for a body that is
///          no array of strings.
class FeatureApi {
public:
    FeatureApi(info::Logger& logger, const FeatureManager& features);

    /// An empty body asks for all features, a JSON array of names for these, in its order.
    APIResponse operator()(const std::string& body) const;

private:
    info::Logger& logger;
    const FeatureManager& features;
};

} // namespace agent::ordak
