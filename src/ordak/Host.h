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
/// Owns:    nothing; what it asks must outlive it.
/// Threads: safe from any.
/// Fails:   with what the search for volumes throws; for the rest see hostFact.
class Host {
public:
    Host(info::Logger& logger, const info::SystemInfoProvider& systemInfo,
         const IDriverInfoProvider& driverInfo, const info::VolumeProvider& volumeProvider,
         core::IEngine& engine, IVSSWriterDetailsProvider& writersProvider, std::string agentVersion);
    /// The body means nothing.
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
