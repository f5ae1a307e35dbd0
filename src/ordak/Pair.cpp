#include "ordak/Pair.h"

#include "common/Exceptions.h"
#include "common/json/ParseJson.h"
#include "common/json/WholeNumber.h"

#include <nlohmann/json.hpp>

#include <exception>

namespace agent::ordak {

Pair::Pair(info::Logger& logger, OrdakPairDelegate& delegate, FeatureManager& features)
    : logger(logger), delegate(delegate) {
    features.addFeature({"secure_pairing", "1.0", "1.0"});
}

APIResponse Pair::operator()(const std::string& body, const APIExtendedData& request) {
    const std::int32_t id = readDeviceId(body);
    if (id < 1) {
        logger.log(info::level::error, info::reason("pairing-refused"),
                   "Pair request from deviceID %d rejected (invalid device ID)", id);
        throw exception::bad_request("");
    }
    if (id != request.deviceId) {
        logger.log(info::level::error, info::reason("pairing-refused"),
                   "Pair request from deviceID %d rejected (device ID mismatch)", id);
        throw exception::bad_request("");
    }
    delegate.pair(id, request.ip);
    logger.log(info::level::info, "Pair request from deviceID %d accepted", id);
    return makeJsonResponse(nullptr, 200);
}

std::int32_t Pair::readDeviceId(const std::string& body) {
    try {
        return requireWholeNumber<std::int32_t>(parseJson(body).at("deviceID"));
    } catch (const std::exception&) {
        logger.log(info::level::error, info::reason("pairing-refused"),
                   "Pair request from deviceID %d rejected (invalid JSON)", 0);
        throw exception::bad_request("");
    }
}

} // namespace agent::ordak
