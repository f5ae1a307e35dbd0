#include "ordak/FeatureManager.h"

#include <utility>

namespace agent::ordak {

void FeatureManager::addFeature(Feature feature) {
    std::string name = feature.name;
    features.insert_or_assign(std::move(name), std::move(feature));
}

FeatureManager::Features FeatureManager::getFeatures() const {
    return features;
}

} // namespace agent::ordak
