#pragma once

#include "common/config/IConfig.h"

#include <nlohmann/json_fwd.hpp>

namespace agent {

/// The configuration as a document, for the device API and for keys that are legal by pattern.
/// Owns:    nothing that it hands out.
/// Threads: safe from any; one caller of `set` at a time.
/// Fails:   `set` throws std::invalid_argument for a document with an invalid pair, and what the storage
///          throws when it can't be written.
class IConfigData : public IConfig {
public:
    /// What has been set, keys that are in no table included; defaults are not in it.
    [[nodiscard]] virtual nlohmann::json dump() const = 0;
    /// Stores each pair of an object, or none of them if one is invalid.
    virtual void set(const nlohmann::json& pairs) = 0;
};

} // namespace agent
