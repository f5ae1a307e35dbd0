#pragma once

#include "info/log/Logger.h"
#include "ordak/APIExtendedData.h"
#include "ordak/APIResponse.h"
#include "ordak/FeatureManager.h"
#include "ordak/OrdakPairDelegate.h"

namespace agent::ordak {

/// POST /pair: pairs the agent with the calling device, which it then obeys. Every device with a certificate
/// of the right authority may take the agent over; the body only has to repeat the ID from the certificate.
/// Owns:    nothing; the constructor's arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws exception::bad_request without a text if the request is refused; only the log has the
///          reason. Also throws what the store throws. In both cases the earlier pairing stays in effect, but
///          a store that fails may have lost its record of it.
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
