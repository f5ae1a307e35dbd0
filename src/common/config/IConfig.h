#pragma once

#include <string>

namespace agent {

/// The read side of the configuration, for components that need a setting.
/// Owns:    the settings; `get` copies the value into `out`.
/// Threads: any thread may call it.
/// Fails:   `get` throws std::invalid_argument for a key that is not in the table of options, or has another
///          type there. That includes keys that are only allowed by a pattern: read those from
///          IConfigData::dump().
class IConfig {
public:
    virtual ~IConfig() = default;
    virtual void get(const std::string& key, bool& out) const = 0;
    virtual void get(const std::string& key, unsigned long& out) const = 0;
    virtual void get(const std::string& key, std::string& out) const = 0;
};

} // namespace agent
