#pragma once

#include "info/DriverDeviceInfo.h"
#include "info/DriverStatusFiles.h"
#include "info/IDriverController.h"
#include "info/log/Logger.h"

#include <memory>
#include <optional>
#include <string>

namespace bekctl {

enum class DriverKind { none, kernel, standIn };

/// The snapshot driver, according to its status files. Its library isn't called: for each call, the
/// stand-in's library would take its lock and update its files, and a backup would have to wait.
/// Owns:    the controller that reads the status files; the logger must outlive it.
/// Threads: one at a time.
/// Fails:   never: what can't be read counts as missing.
class DriverFacts {
public:
    explicit DriverFacts(agent::info::Logger& logger);

    [[nodiscard]] DriverKind kind() const { return foundKind; }
    /// Empty if there is no driver or its version can't be read.
    [[nodiscard]] const std::string& version() const { return foundVersion; }
    [[nodiscard]] bool isNewEnough() const;
    /// Returns nothing if the driver has no device for the volume.
    [[nodiscard]] std::optional<agent::info::DriverDeviceInfo>
    deviceOf(const agent::info::BackupableVolume& volume) const;

private:
    agent::info::DriverStatusFiles files;
    DriverKind foundKind = DriverKind::none;
    std::unique_ptr<agent::info::IDriverController> controller;
    std::string foundVersion;
};

/// "kernel module", "stand-in" or "none".
std::string nameOf(DriverKind kind);

} // namespace bekctl
