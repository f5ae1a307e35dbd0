#pragma once

#include "db/QueryRunner.h"

#include <cstdint>
#include <string>

namespace agent::db {

/// The database of earlier versions of the agent. This class only reads it, and uses these tables and
/// columns: device(id), config(name, value), history(id, device, volume, result, image_chksum).
/// Owns:    the connection.
/// Threads: only the thread that created it may use it.
/// Fails:   the constructor throws SQLiteError or library_error if it can't open the file. The functions
///          return 0 or an empty string for a value that is missing, unreadable or out of range. They log
///          missing and unreadable values.
class LegacyDatabase {
public:
    LegacyDatabase(info::Logger& logger, const std::string& path);

    /// Returns 0 if there is none.
    std::int32_t selectDeviceId();
    std::string selectConfigValue(const std::string& name);
    /// The image checksum of the volume's last successful backup, or 0 if there is none. `column` is the
    /// column of the history table that contains the volume's UUID.
    std::uint32_t selectLastChecksum(const std::string& column, const std::string& uuid);

private:
    info::Logger& logger;
    QueryRunner runner;
};

} // namespace agent::db
