#pragma once

#include "info/VolumeProvider.h"

#include <functional>
#include <string>

namespace agent::test {

/// The volumes of a machine, as the test finds them.
class StagedVolumes : public info::VolumeProvider {
public:
    using VolumeProvider::VolumeProvider;

    [[nodiscard]] Volume getBackupableVolume(const std::string& uuid) const override { return find(uuid); }

    /// The volume of a UUID, null for none; may throw.
    std::function<Volume(const std::string& uuid)> find = [](const std::string&) { return nullptr; };
};

} // namespace agent::test
