#pragma once

#include "common/Path.h"
#include "common/UUIDGenerator.h"
#include "db/IDataProviderExtended.h"
#include "db/qparam.h"
#include "info/log/Logger.h"
#include "os/Mutex.h"

#include <exception>

namespace agent::db {

class QueryRunner;

/// The persistent store in one SQLite file, "agent.sqlite". Every operation opens a connection of its own and
/// closes it again: nothing is cached, and no statement or file lock outlives a call.
/// Owns:    the mutex that allows one connection at a time; logger and generator must outlive it.
/// Threads: any thread may call it. It logs while it holds the mutex, so log printers must not call it.
/// Fails:   every operation throws exceptions derived from std::runtime_error; the constructor throws if it
///          can't create the directory. An operation fails at once, without a retry, if another process has
///          locked the file, if the file can't be written or isn't a database.
class DataProvider : public IDataProviderExtended {
public:
    /// Creates `directory` with its parents; the first operation, validateProvider, creates the file. Only
    /// root can open the file: each operation also corrects permissions that are too wide.
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

    /// Makes sure that only root can open, and so lock, the file, and opens a connection.
    QueryRunner open() REQUIRES(mutex);
    /// Runs one statement on a new connection, under the mutex.
    Rows query(const std::string& sql, const std::vector<qparam>& params);
    Rows queryChecksum(const std::string& uuid);
    std::string storedAgentUUID();
    std::string storeIfMissing(const std::string& key, const std::string& value);
    [[noreturn]] void failToSet(const std::string& key, const std::string& value,
                                const std::exception& problem);
    std::string newAgentUUID();

    info::Logger& logger;
    os::Mutex mutex; // serialises the use of the file at databasePath
    Path databasePath;
    UUIDGenerator& uuidGenerator;
};

} // namespace agent::db
