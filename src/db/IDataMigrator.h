#pragma once

namespace agent {
class Config;
}

namespace agent::db {

/// Moves the state of an earlier version of the agent into the current database and configuration.
/// Owns:    nothing.
/// Threads: only the thread that starts the agent calls it.
/// Fails:   `migrate` logs the reason and returns false; the agent starts nevertheless.
class IDataMigrator {
public:
    virtual ~IDataMigrator() = default;
    virtual bool migrate(Config& config) = 0;
};

} // namespace agent::db
