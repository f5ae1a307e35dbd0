#pragma once

#include "info/VolumeProvider.h"

#include <functional>
#include <string>

namespace agent::test {

/// A volume provider whose volumes the test sets.
class StagedVolumes : public info::VolumeProvider {
public:
    using VolumeProvider::VolumeProvider;

    [[nodiscard]] Volume getBackupableVolume(const std::string& uuid) const override { return find(uuid); }

    /// Returns the volume with a UUID, or null if there is none; may throw.
    std::function<Volume(const std::string& uuid)> find = [](const std::string&) { return nullptr; };
};

} // namespace agent::test
