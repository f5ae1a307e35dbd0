#pragma once

#include "common/config/ConfigOptions.h"
#include "common/config/IConfigData.h"
#include "common/config/IConfigDataProvider.h"
#include "info/log/Logger.h"

namespace agent {

/// Checks everything that goes into or comes out of the configuration against the table of options.
/// Owns:    the table; logger and storage must outlive it.
/// Threads: no lock of its own: the table never changes and the storage guards itself.
/// Fails:   a stored value that doesn't fit its option is an error line at construction, and reads as the
///          default for as long as it stands. See IConfigData for the rest.
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
