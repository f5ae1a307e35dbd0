#pragma once

#include "common/Path.h"
#include "common/UUIDGenerator.h"
#include "db/IDataProviderExtended.h"
#include "db/qparam.h"
#include "info/log/Logger.h"

#include <exception>
#include <mutex>

namespace agent::db {

class QueryRunner;

/// The store in one SQLite file, "agent.sqlite". Every operation opens a connection of its own and closes it
/// again: nothing is cached, and no statement or file lock outlives a call.
/// Owns:    the mutex that keeps it at one connection; logger and generator must outlive it.
/// Threads: safe from any. Log lines are written while the mutex is held, so no printer may call in here.
/// Fails:   as the interfaces say; the constructor throws if the directory can't be made. A file that another
///          process has locked, that can't be written or is no database fails the operation at once.
class DataProvider : public IDataProviderExtended {
public:
    /// Creates `directory` with its parents; the file itself comes with validateProvider. Only root can open
    /// it, also one that an earlier version has left open to others.
    DataProvider(info::Logger& logger, UUIDGenerator& uuidGenerator, const std::string& directory);
    DataProvider(const DataProvider&) = delete;
    DataProvider& operator=(const DataProvider&) = delete;
    ~DataProvider() override;

    std::string getConfigValue(const std::string& key) override;
    void setConfigValue(const std::string& key, const std::string& value) override;

    void setVolumeChecksum(const std::string& uuid, std::uint32_t checksum, ChecksumType type) override;
    void validateProvider() override;
    bool getDevice(std::int32_t& id, std::string& ip, std::string& agentUUID) override;
    void setDevice(std::int32_t id, const std::string& ip, const std::string& agentUUID) override;
    void getVolumeChecksum(const std::string& uuid, std::uint32_t& checksum, ChecksumType& type) override;
    bool hasVolume(const std::string& uuid) override;
    std::vector<std::string> getVolumeUUIDs() override;

    bool getVolumeJournalChangeId(const std::string& uuid, ChangeContext context, std::uint64_t& journalId,
                                  std::uint64_t& changeId) override;
    void setVolumeJournalChangeId(const std::string& uuid, ChangeContext context, std::uint64_t journalId,
                                  std::uint64_t changeId) override;
    void setVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t blocks) override;
    bool getVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t& blocks) override;
    std::string getAgentUUID() override;

private:
    using Rows = std::vector<std::vector<qparam>>;

    /// A connection to a file that nobody but root can open, and so lock. The mutex must be held.
    QueryRunner open();
    /// One statement through a connection of its own, under the mutex.
    Rows query(const std::string& sql, const std::vector<qparam>& params);
    Rows queryChecksum(const std::string& uuid);
    std::string storedAgentUUID();
    std::string storeIfMissing(const std::string& key, const std::string& value);
    [[noreturn]] void failToSet(const std::string& key, const std::string& value,
                                const std::exception& problem);
    std::string newAgentUUID();

    info::Logger& logger;
    std::mutex mutex; // serialises the use of the file at databasePath
    Path databasePath;
    UUIDGenerator& uuidGenerator;
};

} // namespace agent::db
