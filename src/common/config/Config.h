#pragma once

#include "common/config/ConfigOptions.h"
#include "common/config/IConfigData.h"
#include "common/config/IConfigDataProvider.h"
#include "info/log/Logger.h"

namespace agent {

/// Checks everything that goes into or comes out of the configuration against the table of options.
/// Owns:    the table; logger and storage must outlive it.
/// Threads: any thread may call it: the table never changes, and the storage has its own lock.
/// Fails:   `get` throws std::invalid_argument for an unknown key or type, and `set` for an invalid pair;
///          `set` also passes on what the storage throws. The constructor logs an error for each stored value
///          that doesn't fit its option; `get` returns the default instead of such a value.
class Config : public IConfigData {
public:
    Config(info::Logger& logger, IConfigDataProvider& provider, ConfigOptions options);

    void get(const std::string& key, bool& out) const override;
    void get(const std::string& key, unsigned long& out) const override;
    void get(const std::string& key, std::string& out) const override;
    [[nodiscard]] nlohmann::json dump() const override;
    void set(const nlohmann::json& pairs) override;

private:
    [[nodiscard]] const ConfigOption& find(const std::string& key, const std::type_info& type) const;
    [[nodiscard]] bool isValid(const std::string& key, const nlohmann::json& value) const;
    void reportInvalidStoredValues() const;

    info::Logger& logger;
    IConfigDataProvider& provider;
    ConfigOptions options;
};

} // namespace agent
