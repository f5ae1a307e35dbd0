#include "info/VolumeProvider.h"

#include "info/UdisksSession.h"
#include "info/VolumeBuilder.h"
#include "info/VolumeProviderImpl.h"

#include <exception>
#include <utility>

namespace agent::info {

namespace {

/// Returns null if the object isn't a volume or can't be described.
VolumeProvider::Volume tryBuild(Logger& logger, const UdisksSession& session, const std::string& path) {
    try {
        const GObjectOwner<UDisksObject> object = session.object(path.c_str());
        return VolumeBuilder(logger, session).build(object.get());
    } catch (const std::exception& error) {
        LogEntry(logger, level::debug) << "Exception caught while processing object: " << error.what();
        return nullptr;
    }
}

} // namespace

VolumeProvider::VolumeProvider(Logger& logger)
    : logger(logger), impl(std::make_unique<VolumeProviderImpl>()) {}

VolumeProvider::~VolumeProvider() = default;

std::vector<VolumeProvider::Volume> VolumeProvider::getBackupableVolumes() const {
    return getBackupableVolumes([](const Volume&) { return true; });
}

std::vector<VolumeProvider::Volume> VolumeProvider::getBackupableVolumes(const Filter& filter) const {
    const UdisksSession session;
    std::vector<Volume> volumes;
    for (const std::string& path : session.objectPaths()) {
        LogEntry(logger, level::debug) << "Found object at \"" << path << "\"";
        Volume volume = tryBuild(logger, session, path);
        if (volume && filter(volume)) {
            volumes.push_back(std::move(volume));
        }
    }
    return volumes;
}

VolumeProvider::Volume VolumeProvider::getBackupableVolume(const std::string& uuid) const {
    const std::vector<Volume> found =
        getBackupableVolumes([&](const Volume& volume) { return volume->getUuid() == uuid; });
    return found.empty() ? nullptr : found.front();
}

} // namespace agent::info
