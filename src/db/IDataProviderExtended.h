#pragma once

#include "db/ChangeContext.h"
#include "db/IDataProvider.h"

namespace agent::db {

/// The persistent store with the values that only the engine and the API need: positions in change journals,
/// sizes of incremental backups and the identity of this installation.
/// Owns:    the stored data; callers get copies.
/// Threads: any thread may call it; one operation runs at a time.
/// Fails:   like IDataProvider, by exceptions derived from std::runtime_error. The getters return false for a
///          volume without a record; the setters create the record.
class IDataProviderExtended : public IDataProvider {
public:
    /// Throws if `context` is not one of the enumerators.
    virtual bool getVolumeJournalChangeId(const std::string& uuid, ChangeContext context,
                                          std::uint64_t& journalId, std::uint64_t& changeId) = 0;
    virtual void setVolumeJournalChangeId(const std::string& uuid, ChangeContext context,
                                          std::uint64_t journalId, std::uint64_t changeId) = 0;

    virtual void setVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t blocks) = 0;
    virtual bool getVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t& blocks) = 0;

    /// The first call generates and stores the UUID. Returns an empty string if no UUID can be generated.
    virtual std::string getAgentUUID() = 0;
};

} // namespace agent::db
