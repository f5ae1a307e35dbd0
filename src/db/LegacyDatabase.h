#pragma once

#include "db/QueryRunner.h"

#include <cstdint>
#include <string>

namespace agent::db {

/// The database that earlier versions of the agent kept their state in. It is only read. Of its tables these
/// columns count: device(id), config(name, value), history(id, device, volume, result, image_chksum).
/// Owns:    the connection.
/// Threads: belongs to the thread that made it.
/// Fails:   the constructor throws what QueryRunner throws. A value that isn't there, can't be read or has no
///          place in today's stores is 0 or an empty text, after a log line.
class LegacyDatabase {
public:
    LegacyDatabase(info::Logger& logger, const std::string& path);

    /// 0 for none.
    std::int32_t selectDeviceId();
    std::string selectConfigValue(const std::string& name);
    /// The checksum of the image that the last good backup of a volume has left, 0 for none. `column` is
    /// where the history names the volume.
    std::uint32_t selectLastChecksum(const std::string& column, const std::string& uuid);

private:
    info::Logger& logger;
    QueryRunner runner;
};

} // namespace agent::db
