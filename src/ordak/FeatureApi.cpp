#include "ordak/FeatureApi.h"

#include "common/json/ParseJson.h"

#include <nlohmann/json.hpp>

#include <vector>

namespace agent::ordak {

namespace {

using nlohmann::json;

std::vector<std::string> requestedNames(const std::string& body, const FeatureManager::Features& known) {
    if (!body.empty()) {
        return parseJson(body).get<std::vector<std::string>>();
    }
    std::vector<std::string> all;
    all.reserve(known.size());
    for (const auto& [name, feature] : known) {
        all.push_back(name);
    }
    return all;
}

} // namespace

FeatureApi::FeatureApi(info::Logger& logger, const FeatureManager& features)
    : logger(logger), features(features) {}

APIResponse FeatureApi::operator()(const std::string& body) const {
    const FeatureManager::Features known = features.getFeatures();
    json list = json::array();
    for (const std::string& name : requestedNames(body, known)) {
        const Feature& feature = known.at(name);
        list.push_back(
            {{"name", feature.name}, {"version", feature.version}, {"minVersion", feature.minVersion}});
    }
    info::LogEntry(logger, info::level::debug) << " Features: " << list.dump();
    return makeJsonResponse(list, 200);
}

} // namespace agent::ordak
