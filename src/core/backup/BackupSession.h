#pragma once

#include "info/log/Logger.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

namespace agent::core {
class ITransport;
}
namespace agent::db {
class IDataProvider;
}

namespace agent::core::backup {

class IBackupAttributes;
class RemoteTargetValidator;

/// The remote targets of one backup, one transport per volume. Each is handed out for writing once.
/// Owns:    a share of every transport; destroying the session closes them.
/// Threads: one at a time: built by the request's thread, then handed over to the thread of the backup.
/// Fails:   by exception, which fails the backup; transport_connection_error if a target refuses the
///          connection.
///
/// Only `finishWriting` stores the new checksums in the database. If the session is destroyed earlier, the
/// database keeps the old ones. If an image no longer matches its old checksum, the next backup compares
/// every block.
class BackupSession {
public:
    /// Computes the checksum of the transport's target; false if the target can't be read.
    using ChecksumFunction =
        std::function<bool(const std::shared_ptr<ITransport>& transport, std::uint32_t& checksum)>;

    explicit BackupSession(info::Logger& logger);
    BackupSession(const BackupSession&) = delete;
    BackupSession& operator=(const BackupSession&) = delete;
    virtual ~BackupSession();

    /// After this no transport can be added; every other method requires it.
    virtual void open();
    virtual std::shared_ptr<ITransport> getTransport(const std::string& uuid);
    virtual void addTransport(const std::string& uuid, std::shared_ptr<ITransport> transport);
    /// May lower the types in `attributes`; see RemoteTargetValidator.
    virtual void validateRemoteTargets(RemoteTargetValidator& validator, IBackupAttributes& attributes);
    /// Connects the volume's transport and stores it in `out`. May be retried if the target refuses.
    virtual void createVolumeWriter(const std::string& uuid, bool isDiffMerge,
                                    std::shared_ptr<ITransport>& out);
    /// Computes the checksum of a written volume and keeps it for `finishWriting`.
    virtual void registerVolume(const std::string& uuid, const ChecksumFunction& checksumFunction);
    /// Stores the checksums of all volumes. Checksum 0 means that there is none, here and in the database, so
    /// this throws even for a target whose checksum really is 0.
    virtual void finishWriting(db::IDataProvider& dataProvider);

private:
    struct Volume {
        std::shared_ptr<ITransport> transport;
        bool writerGiven = false;
        std::uint32_t checksum = 0;
    };

    /// Throws std::runtime_error with `message` unless the session is open.
    void requireOpened(const char* message) const;
    Volume& find(const std::string& uuid);

    info::Logger& logger;
    std::unordered_map<std::string, Volume> transports;
    bool opened = false;
};

} // namespace agent::core::backup
