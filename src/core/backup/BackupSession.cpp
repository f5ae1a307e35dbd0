#include "core/backup/BackupSession.h"

#include "common/Exceptions.h"
#include "core/backup/RemoteTargetValidator.h"
#include "core/backup/VolumeChecksumGenerator.h"
#include "core/transport/ITransport.h"
#include "db/IDataProvider.h"

#include <stdexcept>
#include <utility>

namespace agent::core::backup {

BackupSession::BackupSession(info::Logger& logger) : logger(logger) {
    info::LogEntry(logger, info::level::debug) << "Backup session created";
}

// Logs through LogEntry, because a LogEntry lets no exception escape.
BackupSession::~BackupSession() {
    opened = false;
    info::LogEntry(logger, info::level::info) << "Closing backup session, finalizing remote targets...";
    info::LogEntry(logger, info::level::debug) << "Backup session destroyed";
}

void BackupSession::open() {
    if (opened) {
        throw std::runtime_error("Backup session already open!");
    }
    info::LogEntry(logger, info::level::debug) << "Backup session opening";
    opened = true;
    info::LogEntry(logger, info::level::info) << "Backup session opened";
}

std::shared_ptr<ITransport> BackupSession::getTransport(const std::string& uuid) {
    requireOpened("Cannot get transport, backup session was never opened!");
    return find(uuid).transport;
}

void BackupSession::addTransport(const std::string& uuid, std::shared_ptr<ITransport> transport) {
    if (opened) {
        throw std::runtime_error("Cannot add transports after the session has been opened!");
    }
    if (!transports.try_emplace(uuid, Volume{std::move(transport)}).second) {
        logger.log(info::level::error, "Backup session could not add transport for volume UUID %s",
                   uuid.c_str());
        throw std::runtime_error("Could not insert a transport object for volume UUID " + uuid +
                                 " into the transport map.");
    }
    logger.log(info::level::info, "Backup session added a transport for volume UUID %s", uuid.c_str());
}

void BackupSession::validateRemoteTargets(RemoteTargetValidator& validator, IBackupAttributes& attributes) {
    requireOpened("Cannot validate remote targets, backup session was never opened!");
    for (const auto& [uuid, volume] : transports) {
        VolumeChecksumGenerator generator(logger, volume.transport);
        validator.validate(uuid, attributes, *volume.transport, generator);
    }
}

void BackupSession::createVolumeWriter(const std::string& uuid, bool isDiffMerge,
                                       std::shared_ptr<ITransport>& out) {
    requireOpened("Cannot request volume writer, backup session was never opened!");
    Volume& volume = find(uuid);
    if (volume.writerGiven) {
        throw std::runtime_error("Writer request for volume UUID '" + uuid +
                                 "' was previously fulfilled. It cannot be requested more than once.");
    }
    if (!volume.transport->connect(isDiffMerge)) {
        throw info::WithReason<exception::transport_connection_error>(
            info::reason("target-unreachable"),
            "Failed to open transport connection for volume UUID " + uuid);
    }
    out = volume.transport;
    logger.log(info::level::info, "Backup session created a volume writer for volume UUID %s", uuid.c_str());
    volume.writerGiven = true;
}

void BackupSession::registerVolume(const std::string& uuid, const ChecksumFunction& checksumFunction) {
    requireOpened("Cannot register a volume checksum, backup session was never opened!");
    const auto found = transports.find(uuid);
    if (found == transports.end()) {
        throw std::invalid_argument("A session for volume UUID " + uuid + " does not exist.");
    }
    Volume& volume = found->second;
    std::uint32_t checksum = 0;
    if (!checksumFunction(volume.transport, checksum)) {
        throw info::WithReason<std::runtime_error>(info::reason("image-unreadable"),
                                                   "Failed to generate checksum for volume: " + uuid);
    }
    volume.checksum = checksum;
    info::LogEntry(logger, info::level::info)
        << "Backup session registering volume UUID '" << uuid << "' with checksum '" << checksum << "'";
}

void BackupSession::finishWriting(db::IDataProvider& dataProvider) {
    requireOpened("Cannot finish writing volumes, backup session was never opened!");
    for (const auto& [uuid, volume] : transports) {
        if (volume.checksum == 0) {
            throw std::logic_error("Failed to register a checksum after writing with the corresponding "
                                   "VolumeWriter for volume: " +
                                   uuid);
        }
        dataProvider.setVolumeChecksum(uuid, volume.checksum, db::ChecksumType::libcrc32c);
        logger.log(info::level::info, "Finishing writing for volume UUID %s", uuid.c_str());
    }
}

void BackupSession::requireOpened(const char* message) const {
    if (!opened) {
        throw std::runtime_error(message);
    }
}

BackupSession::Volume& BackupSession::find(const std::string& uuid) {
    const auto found = transports.find(uuid);
    if (found == transports.end()) {
        logger.log(info::level::error, "Backup session could not find transport for volume UUID %s",
                   uuid.c_str());
        throw std::invalid_argument("A transport for volume UUID " + uuid + " does not exist.");
    }
    return found->second;
}

} // namespace agent::core::backup
