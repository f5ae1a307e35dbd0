#pragma once

#include "common/Path.h"
#include "common/config/IConfigDataProvider.h"
#include "os/Mutex.h"

#include <nlohmann/json.hpp>

namespace agent {

/// Keeps the configuration in one JSON file: a flat object whose keys are whole dotted names, such as
///     { "log.lifetimeHours": 72, "holepunch.enabled": true }
/// Every `set` writes the whole document to a temporary file and renames that, so that a crash or a full disk
/// leaves the old file unchanged.
/// Owns:    the parsed document.
/// Threads: any thread may call it; a mutex guards the document, and `set` holds it while it writes the file.
/// Fails:   the constructor throws std::runtime_error if the file can be opened but isn't JSON, is larger
///          than 1 MiB or exceeds the limits of parseJson. A missing file counts as empty. `set` throws
///          std::runtime_error if it can't write the file, or if the next start could not read it.
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
    mutable os::Mutex mutex;
    nlohmann::json document GUARDED_BY(mutex);
};

} // namespace agent
