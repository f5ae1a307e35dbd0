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

/// The parts of the agent's database that bekctl reads.
struct Database {
    std::optional<Pairing> pairing;
    std::vector<std::string> volumes; ///< UUIDs of all volumes of which a backup was begun
    std::string agentUuid;
};

/// Reads the bytes of the agent's database, and opens the copy in memory. SQLite itself would lock the file,
/// and as the agent doesn't wait for locks, a backup could fail. A copy that was made while the agent wrote
/// is discarded and made again, for about two seconds.
/// Throws std::runtime_error, which says what is wrong.
Database readDatabase(const std::string& path);

/// The checksum that the agent has stored for the image of a volume's last good backup.
struct ImageChecksum {
    std::uint32_t value = 0;
    agent::db::ChecksumType type = agent::db::ChecksumType::libcrc32c;
};

/// Reads that checksum for one volume, by its UUID, in the same way; nothing if no checksum is known.
std::optional<ImageChecksum> readImageChecksum(const std::string& path, const std::string& uuid);

/// Opens the bytes of a database file in memory, read-only. Throws std::runtime_error.
Database parseDatabase(std::string bytes);

} // namespace bekctl
