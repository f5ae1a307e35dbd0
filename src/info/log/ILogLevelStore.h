#pragma once

#include <string>

namespace agent::info {

/// The durable key-value store as the logging stack sees it; the database implements it.
/// Owns:    the stored values.
/// Threads: safe from any.
/// Fails:   `getConfigValue` throws for a missing key; both throw when the store can't be used.
class ILogLevelStore {
public:
    virtual ~ILogLevelStore() = default;
    virtual std::string getConfigValue(const std::string& key) = 0;
    virtual void setConfigValue(const std::string& key, const std::string& value) = 0;
};

} // namespace agent::info
