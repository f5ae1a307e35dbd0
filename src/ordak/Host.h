#pragma once

#include "core/IEngine.h"
#include "info/IDriverInfoProvider.h"
#include "info/IVSSWriterDetailsProvider.h"
#include "info/SystemInfoProvider.h"
#include "info/VolumeProvider.h"
#include "info/log/Logger.h"
#include "ordak/APIResponse.h"

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace agent::ordak {

/// GET /host: the machine, its volumes and its quiesce scripts.
/// Owns:    nothing; the constructor's reference arguments must outlive it.
/// Threads: any thread may call it.
/// Fails:   throws std::runtime_error if the volumes can't be listed. Other errors are logged and don't fail
///          the request: most properties are "[ERROR]" then.
class Host {
public:
    Host(info::Logger& logger, const info::SystemInfoProvider& systemInfo,
         const IDriverInfoProvider& driverInfo, const info::VolumeProvider& volumeProvider,
         core::IEngine& engine, IVSSWriterDetailsProvider& writersProvider, std::string agentVersion);
    /// Ignores the body.
    APIResponse operator()(const std::string& body);

private:
    void addSystem(nlohmann::json& host) const;
    void addFirmware(nlohmann::json& host) const;
    void addWriters(nlohmann::json& host) const;
    [[nodiscard]] info::KernelVersion kernelVersion() const;
    [[nodiscard]] nlohmann::json spaceFree(const info::BackupableVolume& volume) const;
    [[nodiscard]] nlohmann::json describeVolumes() const;

    info::Logger& logger;
    const info::SystemInfoProvider& systemInfo;
    const IDriverInfoProvider& driverInfo;
    const info::VolumeProvider& volumeProvider;
    core::IEngine& engine;
    IVSSWriterDetailsProvider& writersProvider;
    const std::string agentVersion;
};

} // namespace agent::ordak
