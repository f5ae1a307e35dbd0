#include "core/backup/RemoteTargetValidator.h"

#include "common/Exceptions.h"
#include "core/backup/BackupType.h"
#include "core/backup/IBackupAttributes.h"
#include "core/backup/IVolumeChecksumGenerator.h"
#include "core/transport/ITransport.h"
#include "db/IDataProvider.h"

#include <cstdint>
#include <exception>

namespace agent::core::backup {

namespace {

/// Disconnects a transport at the end of a scope. That does nothing if the transport was never connected.
class Disconnection {
public:
    explicit Disconnection(ITransport& transport) : transport(transport) {}
    Disconnection(const Disconnection&) = delete;
    Disconnection& operator=(const Disconnection&) = delete;
    ~Disconnection() { transport.disconnect(); }

private:
    ITransport& transport;
};

} // namespace

RemoteTargetValidator::RemoteTargetValidator(info::Logger& logger, db::IDataProvider& dataProvider)
    : logger(logger), dataProvider(dataProvider) {}

void RemoteTargetValidator::validate(const std::string& uuid, IBackupAttributes& attributes,
                                     ITransport& transport, IVolumeChecksumGenerator& generator) {
    const Disconnection disconnection(transport);
    if (!transport.connect(false)) {
        throw info::WithReason<exception::transport_connection_error>(
            info::reason("target-unreachable"),
            "Failed to open transport connection while validating remote target");
    }
    // The other types don't depend on the content of the remote image.
    if (attributes.getBackupType(uuid) == INCREMENTAL && !isTheImageOfTheLastBackup(uuid, generator)) {
        attributes.setBackupType(uuid, DIFFERENTIAL_MERGE);
    }
}

bool RemoteTargetValidator::isTheImageOfTheLastBackup(const std::string& uuid,
                                                      IVolumeChecksumGenerator& generator) {
    std::uint32_t cached = 0;
    auto type = db::ChecksumType::libcrc32c;
    if (!findCachedChecksum(uuid, cached, type)) {
        return false;
    }
    info::LogEntry(logger, info::level::info)
        << "Found cached volume checksum '" << std::hex << cached << "' for volume: " << uuid;
    std::uint32_t remote = 0;
    if (!generator.generate(type, remote)) {
        throw info::WithReason<exception::transport_connection_error>(info::reason("image-unreadable"),
                                                                      "Failed to generate remote checksum");
    }
    if (remote == cached) {
        info::LogEntry(logger, info::level::debug)
            << "The cached volume checksum matched the remote volume checksum ('" << std::hex << remote
            << "')";
        return true;
    }
    info::LogEntry(logger, info::level::info, info::reason("image-differs"))
        << "The cached volume checksum '" << std::hex << cached
        << "' didn't match with the remote volume checksum '" << remote << "' for volume: " << uuid
        << ", failing back to DIFFERENTIAL_MERGE";
    return false;
}

bool RemoteTargetValidator::findCachedChecksum(const std::string& uuid, std::uint32_t& checksum,
                                               db::ChecksumType& type) {
    try {
        dataProvider.getVolumeChecksum(uuid, checksum, type);
    } catch (const std::exception& error) {
        info::LogEntry(logger, info::level::info, info::reason("database-unreadable"))
            << "Could not find cached checksum from database for volume " << uuid
            << " failing back to DIFFERENTIAL_MERGE: " << error.what();
        return false;
    }
    if (checksum == 0) {
        info::LogEntry(logger, info::level::info, info::reason("image-unfinished"))
            << "Cached checksum for volume " << uuid
            << " is zero indicating volume requires a DIFFERENTIAL_MERGE";
        return false;
    }
    return true;
}

} // namespace agent::core::backup
