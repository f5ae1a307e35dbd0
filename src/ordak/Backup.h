#pragma once

#include "core/IEngine.h"
#include "core/backup/VolumeScript.h"
#include "core/transport/TransportKind.h"
#include "info/log/Logger.h"
#include "ordak/APIResponse.h"
#include "ordak/FeatureManager.h"

#include <nlohmann/json_fwd.hpp>

#include <memory>
#include <string>
#include <vector>

namespace agent::ordak {

/// POST /backup: starts the backup that a JSON document describes, and answers with its ID at once.
/// Owns:    nothing between two requests.
/// Threads: safe from any.
/// Fails:   exception::bad_request for a volume or script that isn't described in full, for a text that holds
///          a NUL or more than 4096 bytes, and for a name with any control character; the JSON library's
///          errors for anything else in the document, and what the engine throws. Nothing has been started
///          then; the transports made so far are gone.
class Backup {
public:
    /// Announces the feature "zephane".
    Backup(info::Logger& logger, core::IEngine& engine, FeatureManager& features);
    APIResponse operator()(const std::string& body);

private:
    struct Volume {
        std::string guid;
        core::RemoteImage image;
        std::vector<core::backup::VolumeScript> scripts;
    };

    [[nodiscard]] Volume readVolume(const nlohmann::json& entry, std::uint64_t largestLun);
    [[nodiscard]] core::backup::VolumeScript readScript(const nlohmann::json& script);
    [[nodiscard]] std::uint32_t readTimeout(const nlohmann::json& script, const std::string& name);
    [[nodiscard]] std::shared_ptr<core::ITransport> makeTransport(const std::string& interface,
                                                                  const core::TransportKind& kind,
                                                                  const core::RemoteImage& image);

    info::Logger& logger;
    core::IEngine& engine;
};

} // namespace agent::ordak
