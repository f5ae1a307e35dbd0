#pragma once

#include "db/ChecksumType.h"
#include "info/log/Logger.h"

#include <cstdint>
#include <string>

namespace agent::core {
class ITransport;
}
namespace agent::db {
class IDataProvider;
}

namespace agent::core::backup {

class IBackupAttributes;
class IVolumeChecksumGenerator;

/// Checks, before an incremental backup, that the remote image is the one that the last backup left. The
/// changes since that backup only fit that image.
/// Owns:    nothing; logger and data provider must outlive it.
/// Threads: the thread of the backup.
/// Fails:   transport_connection_error if the target can't be reached or read: the backup fails, whatever its
///          type. Any other doubt changes the volume's type to DIFFERENTIAL_MERGE.
class RemoteTargetValidator {
public:
    RemoteTargetValidator(info::Logger& logger, db::IDataProvider& dataProvider);
    RemoteTargetValidator(const RemoteTargetValidator&) = delete;
    RemoteTargetValidator& operator=(const RemoteTargetValidator&) = delete;
    virtual ~RemoteTargetValidator() = default;

    /// Connects `transport`, through which `generator` reads, and always disconnects it before it returns or
    /// throws.
    virtual void validate(const std::string& uuid, IBackupAttributes& attributes, ITransport& transport,
                          IVolumeChecksumGenerator& generator);

private:
    /// False in doubt, and logs why.
    bool isTheImageOfTheLastBackup(const std::string& uuid, IVolumeChecksumGenerator& generator);
    /// False if the database fails, or holds no checksum of the volume.
    bool findCachedChecksum(const std::string& uuid, std::uint32_t& checksum, db::ChecksumType& type);

    info::Logger& logger;
    db::IDataProvider& dataProvider;
};

} // namespace agent::core::backup
