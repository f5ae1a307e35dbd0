#pragma once

#include "info/BackupableVolume.h"
#include "info/IVSSWriterDetailsProvider.h"
#include "info/SystemInfoProvider.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

namespace agent::ordak {

/// The agent's own objects as the device API shows them.
/// Owns:    nothing.
/// Threads: safe from any.
/// Fails:   never.
class OrdakAdapter {
public:
    /// Which kind of system this is.
    static std::string kernel();
    static nlohmann::json kernelVersion(const info::KernelVersion& version);
    static nlohmann::json scripts(const std::vector<std::string>& names);
    static nlohmann::json writers(const std::vector<VSSWriterDetails>& writers);
    /// All but the free space, which has to be asked for.
    static nlohmann::json volume(const info::BackupableVolume& volume);
};

} // namespace agent::ordak
