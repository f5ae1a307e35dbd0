#pragma once

#include <string>

namespace agent {

/// The read side of the configuration, for components that need a setting.
/// Owns:    nothing that it hands out.
/// Threads: safe from any.
/// Fails:   std::invalid_argument for a key that is not in the table of options. Keys that are legal by
///          pattern only are no exception to this: read them from IConfigData::dump().
class IConfig {
public:
    virtual ~IConfig() = default;
    virtual void get(const std::string& key, bool& out) const = 0;
    virtual void get(const std::string& key, unsigned long& out) const = 0;
    virtual void get(const std::string& key, std::string& out) const = 0;
};

} // namespace agent
