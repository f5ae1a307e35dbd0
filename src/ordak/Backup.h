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

/// POST /backup: starts the backup that a JSON document describes, and responds at once with the backup's ID.
/// Owns:    nothing between two requests.
/// Threads: any thread may call it.
/// Fails:   throws exception::bad_request for an incomplete volume or script, for a text with a NUL or more
///          than 4096 bytes, and for a name with a control character; std::invalid_argument for Zephane v1
///          and for a volume that occurs twice; the JSON library's errors for other mistakes in the document;
///          and what the engine throws. No backup has been started then.
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

    [[nodiscard]] Volume readVolume(const nlohmann::json& entry, std::uint64_t maxLun);
    [[nodiscard]] core::backup::VolumeScript readScript(const nlohmann::json& script);
    [[nodiscard]] std::uint32_t readTimeout(const nlohmann::json& script, const std::string& name);
    [[nodiscard]] std::shared_ptr<core::ITransport> makeTransport(const std::string& interface,
                                                                  const core::TransportKind& kind,
                                                                  const core::RemoteImage& image);

    info::Logger& logger;
    core::IEngine& engine;
};

} // namespace agent::ordak
