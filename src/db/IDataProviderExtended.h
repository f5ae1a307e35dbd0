#pragma once

#include "db/ChangeContext.h"
#include "db/IDataProvider.h"

namespace agent::db {

/// The store with what only the engine and the API need of it: positions in change journals, sizes of
/// incremental backups and the identity of this installation.
/// Owns:    as IDataProvider.
/// Threads: as IDataProvider.
/// Fails:   as IDataProvider. A volume without a record is a false result; setting creates the record.
class IDataProviderExtended : public IDataProvider {
public:
    /// Throws for a context that is none of the named ones.
    virtual bool getVolumeJournalChangeId(const std::string& uuid, ChangeContext context,
                                          std::uint64_t& journalId, std::uint64_t& changeId) = 0;
    virtual void setVolumeJournalChangeId(const std::string& uuid, ChangeContext context,
                                          std::uint64_t journalId, std::uint64_t changeId) = 0;

    virtual void setVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t blocks) = 0;
    virtual bool getVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t& blocks) = 0;

    /// Makes and stores the UUID when it is asked for the first time. Empty if none can be made.
    virtual std::string getAgentUUID() = 0;
};

} // namespace agent::db
