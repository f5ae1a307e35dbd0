#pragma once

namespace agent {
class Config;
}

namespace agent::db {

/// Takes the state of an earlier version of the agent over into the present stores.
/// Owns:    nothing.
/// Threads: the one that starts the agent.
/// Fails:   with false, logged; the agent starts all the same.
class IDataMigrator {
public:
    virtual ~IDataMigrator() = default;
    virtual bool migrate(Config& config) = 0;
};

} // namespace agent::db
