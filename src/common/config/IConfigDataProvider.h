#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace agent {

/// The storage below the configuration: typed values by key. It doesn't check keys or values against the
/// table of options.
/// Owns:    the stored document.
/// Threads: any thread may call it.
/// Fails:   `get` throws the JSON library's type error if the stored value has another type. `set` throws if
///          the document can't be written or can't be read back; nothing has changed then.
class IConfigDataProvider {
public:
    virtual ~IConfigDataProvider() = default;
    [[nodiscard]] virtual std::string get(const std::string& key, const std::string& fallback) const = 0;
    [[nodiscard]] virtual unsigned long get(const std::string& key, unsigned long fallback) const = 0;
    [[nodiscard]] virtual bool get(const std::string& key, bool fallback) const = 0;
    virtual void set(const std::string& key, const std::string& value) = 0;
    virtual void set(const std::string& key, unsigned long value) = 0;
    virtual void set(const std::string& key, bool value) = 0;
    /// Stores every key-value pair of the JSON object `pairs`: all of them at once or none.
    virtual void set(const nlohmann::json& pairs) = 0;
    [[nodiscard]] virtual nlohmann::json dump() const = 0;
};

} // namespace agent
