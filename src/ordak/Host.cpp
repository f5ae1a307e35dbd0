#include "ordak/Host.h"

#include "ordak/OrdakAdapter.h"
#include "ordak/PropertyOrError.h"

#include <utility>

namespace agent::ordak {

using nlohmann::json;

Host::Host(info::Logger& logger, const info::SystemInfoProvider& systemInfo,
           const IDriverInfoProvider& driverInfo, const info::VolumeProvider& volumeProvider,
           core::IEngine& engine, IVSSWriterDetailsProvider& writersProvider, std::string agentVersion)
    : logger(logger),
      systemInfo(systemInfo),
      driverInfo(driverInfo),
      volumeProvider(volumeProvider),
      engine(engine),
      writersProvider(writersProvider),
      agentVersion(std::move(agentVersion)) {}

APIResponse Host::operator()(const std::string& /*body*/) {
    json host;
    addSystem(host);
    host["agentVersion"] = agentVersion;
    host["driverVersion"] = propertyOrError(logger, [&] { return driverInfo.getDriverVersion(); });
    addFirmware(host);
    host["scriptsPrePost"] =
        propertyOrError(logger, [&] { return OrdakAdapter::scripts(engine.getQuiesceScripts()); });
    addWriters(host);
    host["volumes"] = describeVolumes();
    return makeJsonResponse(host, 200);
}

void Host::addSystem(json& host) const {
    host["kernel"] = OrdakAdapter::kernel();
    host["os"] = propertyOrError(logger, [&] { return systemInfo.getOSVersion(); });
    host["os_arch"] = propertyOrError(logger, [&] { return systemInfo.getArchitecture(); });
    host["os_version"] = OrdakAdapter::kernelVersion(kernelVersion());
    host["hostname"] = propertyOrError(logger, [&] { return systemInfo.getHostName(); });
    host["archBits"] = propertyOrError(logger, [&] { return systemInfo.getArchitectureBits(); });
    host["cpus"] = propertyOrError(logger, [&] { return systemInfo.getCPUCount(); });
    host["uptime"] = propertyOrError(logger, [&] { return systemInfo.getUptime(); });
    host["ram"] = propertyOrError(logger, [&] { return systemInfo.getTotalRAM(); });
    host["freeram"] = propertyOrError(logger, [&] { return systemInfo.getFreeRAM(); });
}

void Host::addFirmware(json& host) const {
    const auto value = [&](const char* name) {
        return propertyOrError(logger, [&] { return systemInfo.getSMBIOSValue(name); });
    };
    host["smbiosID"] = value(info::smbios::serial);
    host["smbiosName"] = value(info::smbios::name);
    host["smbiosUUID"] = value(info::smbios::uuid);
    host["smbiosVendor"] = value(info::smbios::vendor);
}

/// Only logs a failure: the appliance doesn't need the writers.
void Host::addWriters(json& host) const {
    try {
        host["VSSWriters"] = OrdakAdapter::writers(writersProvider.getWriters());
    } catch (const std::exception& error) {
        logger.log(info::level::info, "Failed to retreive VSS writers info: %s", error.what());
    }
}

/// All 0 if the version isn't available.
info::KernelVersion Host::kernelVersion() const {
    try {
        return systemInfo.getKernelVersion();
    } catch (const std::exception& error) {
        info::LogEntry(logger, info::level::error) << error.what();
        return {};
    }
}

/// Only a mounted file system can report its free space. Swap space is never mounted.
json Host::spaceFree(const info::BackupableVolume& volume) const {
    return volume.isMounted() ? propertyOrError(logger, [&] { return volume.getSpaceFree(); }) : json(0);
}

json Host::describeVolumes() const {
    json volumes = json::array();
    for (const auto& volume : volumeProvider.getBackupableVolumes()) {
        json described = OrdakAdapter::volume(*volume);
        described["spaceFree"] = spaceFree(*volume);
        volumes.push_back(std::move(described));
    }
    return volumes;
}

} // namespace agent::ordak
