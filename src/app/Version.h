#pragma once

namespace agent::app {

/// The version of the agent, as shown to users and to the appliance.
inline constexpr const char* version = "2.1.23.0";

} // namespace agent::app
