#pragma once

#include "db/ChecksumType.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace bekctl {

/// The appliance that the agent serves.
struct Pairing {
    std::int64_t device = 0;
    std::string address;
};

/// What is looked at of the agent's database.
struct Database {
    std::optional<Pairing> pairing;
    std::vector<std::string> volumes; ///< UUIDs of those that have been backed up, or begun to be
    std::string agentUuid;
};

/// Reads the agent's database by its bytes, and looks at them in memory: SQLite's own way would lock the
/// file, and the agent doesn't wait for locks, so that a look would make a backup fail. A copy that was taken
/// while the agent wrote is thrown away and taken anew, for two seconds or so.
/// Throws std::runtime_error with what is wrong.
Database readDatabase(const std::string& path);

/// What the agent has noted of the image that the last good backup of a volume has left.
struct ImageChecksum {
    std::uint32_t value = 0;
    agent::db::ChecksumType type = agent::db::ChecksumType::libcrc32c;
};

/// The same for one volume, by its UUID; nothing if no checksum of it is known.
std::optional<ImageChecksum> readImageChecksum(const std::string& path, const std::string& uuid);

/// Looks at a copy of the file in memory; the bytes aren't changed. Throws std::runtime_error.
Database parseDatabase(std::string bytes);

} // namespace bekctl
