#pragma once

#include "common/Path.h"
#include "common/config/IConfigDataProvider.h"

#include <nlohmann/json.hpp>

#include <mutex>

namespace agent {

/// Keeps the configuration in one JSON file: a flat object whose keys are whole dotted names, such as
///     { "log.lifetimeHours": 72, "holepunch.enabled": true }
/// Every `set` writes the whole document beside the file and renames it into place, so that a crash or a full
/// disk leaves the old file as it was.
/// Owns:    the parsed document.
/// Threads: safe from any; readers share the document with a writer under one short mutex.
/// Fails:   construction throws std::runtime_error if the file can be opened but is no JSON, is larger than
///          1 MiB or beyond the limits of parseJson. A missing file is an empty store. `set` throws it for
///          what would make the file such a one, which the next start could not read.
class JSONConfigDataProvider : public IConfigDataProvider {
public:
    explicit JSONConfigDataProvider(Path path);

    [[nodiscard]] std::string get(const std::string& key, const std::string& fallback) const override;
    [[nodiscard]] unsigned long get(const std::string& key, unsigned long fallback) const override;
    [[nodiscard]] bool get(const std::string& key, bool fallback) const override;
    void set(const std::string& key, const std::string& value) override;
    void set(const std::string& key, unsigned long value) override;
    void set(const std::string& key, bool value) override;
    void set(const nlohmann::json& pairs) override;
    [[nodiscard]] nlohmann::json dump() const override;

private:
    template <typename Value>
    [[nodiscard]] Value read(const std::string& key, const Value& fallback) const;
    template <typename Value>
    void write(const std::string& key, const Value& value);

    Path path;
    mutable std::mutex mutex;
    nlohmann::json document; // guarded by mutex
};

} // namespace agent
