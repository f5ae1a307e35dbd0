#include "ordak/OrdakAdapter.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

using nlohmann::json;

std::string OrdakAdapter::kernel() {
    return "linux";
}

json OrdakAdapter::kernelVersion(const info::KernelVersion& version) {
    return {{"major", version.major}, {"minor", version.minor}, {"build", version.build}};
}

json OrdakAdapter::scripts(const std::vector<std::string>& names) {
    json scripts = json::array();
    for (const std::string& name : names) {
        scripts.push_back({{"scriptname", name}, {"displayname", name}});
    }
    return scripts;
}

json OrdakAdapter::writers(const std::vector<VSSWriterDetails>& writers) {
    json described = json::array();
    for (const VSSWriterDetails& writer : writers) {
        described.push_back({{"name", writer.name}});
    }
    return described;
}

json OrdakAdapter::volume(const info::BackupableVolume& volume) {
    return {{"guid", volume.getUuid()},
            {"device", volume.getDevice()},
            {"spaceTotal", volume.getSize()},
            {"filesystem", volume.getFileSystem()},
            {"serialNumber", 0}, // there is none on this system
            {"label", volume.getLabel()},
            {"OSVolume", volume.isOSVolume()},
            {"sysVolume", volume.isSysVolume()},
            {"removable", volume.isRemovable()},
            {"mounted", volume.isMounted()},
            {"readonly", volume.isReadOnly()},
            {"partScheme", volume.getPartScheme()},
            {"volumeType", volume.getVolumeType()},
            {"sectorSize", volume.getSectorSize()},
            {"sectorsTotal", volume.getSectorCount()},
            {"hiddenSectors", volume.getHiddenSectors()},
            {"clusterSizeInBytes", volume.getBlockSize()},
            {"mountpoints", volume.getMountPoints()}};
}

} // namespace agent::ordak
