#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace agent {

/// The storage below the configuration: typed values by key, unchecked.
/// Owns:    the stored document.
/// Threads: safe from any.
/// Fails:   `get` throws the JSON library's type error if the stored value is of another type; `set` throws
///          if the document can't be written, or not be read back, and nothing has changed then.
class IConfigDataProvider {
public:
    virtual ~IConfigDataProvider() = default;
    [[nodiscard]] virtual std::string get(const std::string& key, const std::string& fallback) const = 0;
    [[nodiscard]] virtual unsigned long get(const std::string& key, unsigned long fallback) const = 0;
    [[nodiscard]] virtual bool get(const std::string& key, bool fallback) const = 0;
    virtual void set(const std::string& key, const std::string& value) = 0;
    virtual void set(const std::string& key, unsigned long value) = 0;
    virtual void set(const std::string& key, bool value) = 0;
    /// Stores each pair of an object, all of them at once or none.
    virtual void set(const nlohmann::json& pairs) = 0;
    [[nodiscard]] virtual nlohmann::json dump() const = 0;
};

} // namespace agent
