#pragma once

#include "common/BaseDirectories.h"

/// Paths of the agent's files.
namespace bekctl {

inline agent::Path databasePath() {
    return agent::dir::base() / "agent.sqlite";
}
inline agent::Path configPath() {
    return agent::dir::base() / "config.json";
}
inline agent::Path scriptsPath() {
    return agent::dir::base() / "pps";
}
inline agent::Path keyPath() {
    return agent::dir::base() / "certs/server.key";
}
inline agent::Path certificatePath() {
    return agent::dir::base() / "certs/server.pem";
}
inline agent::Path authorityPath() {
    return agent::dir::base() / "certs/ca.crt";
}

} // namespace bekctl
