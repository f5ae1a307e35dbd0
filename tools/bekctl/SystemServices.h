#pragma once

#include "info/GLibOwners.h"

#include <optional>
#include <string>

namespace bekctl {

/// The state of a unit, according to systemd.
struct Unit {
    std::string load;    ///< "loaded", "not-found", ...
    std::string active;  ///< "active", "inactive", "failed", ...
    std::string detail;  ///< "running", "dead", ...
    std::string enabled; ///< "enabled", "disabled", ...
};

/// Calls to the system's message bus.
/// Owns:    the connection to the bus.
/// Threads: one at a time.
/// Fails:   the constructor throws std::runtime_error if there is no bus. A call without an answer within
///          three seconds counts as failed.
class SystemServices {
public:
    SystemServices();

    /// Whether a service has this name, or the bus can start one.
    [[nodiscard]] bool isReachable(const std::string& name) const;
    /// Returns nothing if systemd doesn't run, or doesn't answer.
    [[nodiscard]] std::optional<Unit> unit(const std::string& name) const;

private:
    [[nodiscard]] bool lists(const char* method, const std::string& name) const;
    [[nodiscard]] std::string property(const std::string& object, const char* name) const;

    agent::info::GObjectOwner<GDBusConnection> connection;
};

} // namespace bekctl
