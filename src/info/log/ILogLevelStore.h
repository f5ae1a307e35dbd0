#pragma once

#include <string>

namespace agent::info {

/// The persistent key-value store as the logging stack sees it; the database implements it.
/// Owns:    the stored values.
/// Threads: any thread may call it.
/// Fails:   `getConfigValue` throws for a missing key; both functions throw if the store can't be used.
class ILogLevelStore {
public:
    virtual ~ILogLevelStore() = default;
    virtual std::string getConfigValue(const std::string& key) = 0;
    virtual void setConfigValue(const std::string& key, const std::string& value) = 0;
};

} // namespace agent::info
