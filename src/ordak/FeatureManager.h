#pragma once

#include <map>
#include <string>

namespace agent::ordak {

/// A part of the device API that not every version of the agent has.
struct Feature {
    std::string name;
    std::string version;
    std::string minVersion; ///< The oldest version that the agent still supports.

    bool operator==(const Feature&) const = default;
};

/// The features that the appliance can discover.
/// Owns:    the features.
/// Threads: no lock: one thread adds the features while the agent is composed; after that, any thread may
///          call `getFeatures`.
/// Fails:   never.
class FeatureManager {
public:
    using Features = std::map<std::string, Feature>;

    FeatureManager() = default;
    FeatureManager(const FeatureManager&) = delete;
    FeatureManager& operator=(const FeatureManager&) = delete;
    virtual ~FeatureManager() = default;

    /// Replaces an earlier feature of the same name.
    virtual void addFeature(Feature feature);
    /// Returns all features, by name.
    [[nodiscard]] virtual Features getFeatures() const;

private:
    Features features;
};

} // namespace agent::ordak
