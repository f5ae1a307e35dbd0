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

/// The remote targets of one backup, one transport per volume, each handed out once for writing.
/// Owns:    a share of every transport; destroying the session is what ends them.
/// Threads: one at a time: built by the request's thread, then handed over to the thread of the backup.
/// Fails:   by exception, which fails the backup; transport_connection_error for a target that refuses.
///
/// Checksums reach the database in `finishWriting` only. A session that is destroyed before leaves the old
/// ones, which no longer match what was written, so that the next backup compares every block.
class BackupSession {
public:
    /// Sums up what the transport's target holds; false if it can't be read.
    using ChecksumFunction =
        std::function<bool(const std::shared_ptr<ITransport>& transport, std::uint32_t& checksum)>;

    explicit BackupSession(info::Logger& logger);
    BackupSession(const BackupSession&) = delete;
    BackupSession& operator=(const BackupSession&) = delete;
    virtual ~BackupSession();

    /// From here on no transport can be added, and everything else becomes possible.
    virtual void open();
    virtual std::shared_ptr<ITransport> getTransport(const std::string& uuid);
    virtual void addTransport(const std::string& uuid, std::shared_ptr<ITransport> transport);
    /// May lower the types in `attributes`; see RemoteTargetValidator.
    virtual void validateRemoteTargets(RemoteTargetValidator& validator, IBackupAttributes& attributes);
    /// Connects the volume's transport and stores it in `out`. A refused connect may be tried again.
    virtual void createVolumeWriter(const std::string& uuid, bool isDiffMerge,
                                    std::shared_ptr<ITransport>& out);
    /// Keeps the checksum of a volume that has been written, for `finishWriting`.
    virtual void registerVolume(const std::string& uuid, const ChecksumFunction& checksumFunction);
    /// Stores the checksums of all volumes. Checksum 0 stands for none: a target that really sums up to 0
    /// fails here, and the database couldn't tell it from a missing one either.
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
