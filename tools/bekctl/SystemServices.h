#pragma once

#include "info/GLibOwners.h"

#include <optional>
#include <string>

namespace bekctl {

/// What systemd says of a unit.
struct Unit {
    std::string load;    ///< "loaded", "not-found", ...
    std::string active;  ///< "active", "inactive", "failed", ...
    std::string detail;  ///< "running", "dead", ...
    std::string enabled; ///< "enabled", "disabled", ...
};

/// Questions to the system's message bus, each answered within three seconds or not at all.
/// Construction throws std::runtime_error if there is no bus.
class SystemServices {
public:
    SystemServices();

    /// Whether somebody has this name, or would be started if it were asked for.
    [[nodiscard]] bool isReachable(const std::string& name) const;
    /// Nothing where systemd doesn't run, or doesn't answer.
    [[nodiscard]] std::optional<Unit> unit(const std::string& name) const;

private:
    [[nodiscard]] bool lists(const char* method, const std::string& name) const;
    [[nodiscard]] std::string property(const std::string& object, const char* name) const;

    agent::info::GObjectOwner<GDBusConnection> connection;
};

} // namespace bekctl
