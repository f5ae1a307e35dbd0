#pragma once

#include "info/log/Logger.h"
#include "ordak/APIResponse.h"
#include "ordak/FeatureManager.h"

namespace agent::ordak {

/// GET /v2/feature: the features of this agent.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws std::out_of_range for an unknown feature, and the JSON library's errors if the body isn't
///          an array of strings.
class FeatureApi {
public:
    FeatureApi(info::Logger& logger, const FeatureManager& features);

    /// An empty body requests all features. A JSON array of names requests these features, in this order.
    APIResponse operator()(const std::string& body) const;

private:
    info::Logger& logger;
    const FeatureManager& features;
};

} // namespace agent::ordak
