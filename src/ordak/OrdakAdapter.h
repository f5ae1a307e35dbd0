#pragma once

#include "info/BackupableVolume.h"
#include "info/IVSSWriterDetailsProvider.h"
#include "info/SystemInfoProvider.h"

#include <nlohmann/json_fwd.hpp>

#include <string>
#include <vector>

namespace agent::ordak {

/// Converts the agent's own objects into the form of the device API.
/// Owns:    nothing.
/// Threads: any thread may call it.
/// Fails:   never.
class OrdakAdapter {
public:
    /// The kind of operating system.
    static std::string kernel();
    static nlohmann::json kernelVersion(const info::KernelVersion& version);
    static nlohmann::json scripts(const std::vector<std::string>& names);
    static nlohmann::json writers(const std::vector<VSSWriterDetails>& writers);
    /// Everything except the free space, which must be queried from the file system.
    static nlohmann::json volume(const info::BackupableVolume& volume);
};

} // namespace agent::ordak
