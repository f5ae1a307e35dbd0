#pragma once

#include "common/config/IConfig.h"

#include <nlohmann/json_fwd.hpp>

namespace agent {

/// The configuration as a JSON document, for the device API and for keys that are allowed by a pattern.
/// Owns:    the settings; `dump` returns a copy.
/// Threads: any thread may call `get` and `dump`; only one thread at a time may call `set`.
/// Fails:   `set` throws std::invalid_argument for a document with an invalid pair, and passes on what
///          IConfigDataProvider::set throws if the settings can't be stored.
class IConfigData : public IConfig {
public:
    /// All stored settings, including keys that are not in the table of options. Defaults are not included.
    [[nodiscard]] virtual nlohmann::json dump() const = 0;
    /// Stores every key-value pair of the JSON object `pairs`, or none if one of them is invalid.
    virtual void set(const nlohmann::json& pairs) = 0;
};

} // namespace agent
