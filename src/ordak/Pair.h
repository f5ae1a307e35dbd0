#pragma once

#include "info/log/Logger.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"
#include "ordak/FeatureManager.h"
#include "ordak/OrdakPairDelegate.h"

namespace agent::ordak {

/// POST /pair: makes the device that calls the one that this agent obeys. Whoever holds a certificate of the
/// right authority may take the agent over; the body only has to repeat the ID of the certificate.
/// Threads: safe from any.
/// Fails:   exception::bad_request without a text for a refusal, the log alone tells why; what the store
///          throws. The earlier pairing stays.
class Pair {
public:
    /// Announces the feature "secure_pairing".
    Pair(info::Logger& logger, OrdakPairDelegate& delegate, FeatureManager& features);
    APIResponse operator()(const std::string& body, const APIExtendedData& request);

private:
    std::int32_t readDeviceId(const std::string& body);

    info::Logger& logger;
    OrdakPairDelegate& delegate;
};

} // namespace agent::ordak
