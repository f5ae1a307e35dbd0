#pragma once

#include "db/IDataProviderExtended.h"
#include "support/FailingCall.h"

#include <functional>
#include <stdexcept>

namespace agent::test {

/// Wraps a data provider. One call fails, as with a full disk, before it has any effect.
class FaultyDataProvider : public db::IDataProviderExtended {
public:
    explicit FaultyDataProvider(db::IDataProviderExtended& inner) : inner(inner) {}

    /// Starts counting calls anew.
    void failAt(int call) { failing = FailingCall(call); }

    std::string getConfigValue(const std::string& key) override { return innerOrFail().getConfigValue(key); }
    void setConfigValue(const std::string& key, const std::string& value) override {
        innerOrFail().setConfigValue(key, value);
    }
    void setVolumeChecksum(const std::string& uuid, std::uint32_t checksum, db::ChecksumType type) override {
        if (checksum != 0 && onStoreChecksum) {
            onStoreChecksum();
        }
        innerOrFail().setVolumeChecksum(uuid, checksum, type);
    }
    void validateProvider() override { innerOrFail().validateProvider(); }
    bool getDevice(std::int32_t& id, std::string& ip, std::string& agentUUID) override {
        return innerOrFail().getDevice(id, ip, agentUUID);
    }
    void setDevice(std::int32_t id, const std::string& ip, const std::string& agentUUID) override {
        innerOrFail().setDevice(id, ip, agentUUID);
    }
    void getVolumeChecksum(const std::string& uuid, std::uint32_t& checksum,
                           db::ChecksumType& type) override {
        innerOrFail().getVolumeChecksum(uuid, checksum, type);
    }
    bool hasVolume(const std::string& uuid) override { return innerOrFail().hasVolume(uuid); }
    std::vector<std::string> getVolumeUUIDs() override { return innerOrFail().getVolumeUUIDs(); }
    bool getVolumeJournalChangeId(const std::string& uuid, db::ChangeContext context,
                                  std::uint64_t& journalId, std::uint64_t& changeId) override {
        return innerOrFail().getVolumeJournalChangeId(uuid, context, journalId, changeId);
    }
    void setVolumeJournalChangeId(const std::string& uuid, db::ChangeContext context, std::uint64_t journalId,
                                  std::uint64_t changeId) override {
        innerOrFail().setVolumeJournalChangeId(uuid, context, journalId, changeId);
    }
    void setVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t blocks) override {
        innerOrFail().setVolumeIncrementalSizeBlocks(uuid, blocks);
    }
    bool getVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t& blocks) override {
        return innerOrFail().getVolumeIncrementalSizeBlocks(uuid, blocks);
    }
    std::string getAgentUUID() override { return innerOrFail().getAgentUUID(); }

    [[nodiscard]] bool hasFailed() const { return failing.hasHappened(); }

    /// Called before the checksum of a whole image is stored; may throw.
    std::function<void()> onStoreChecksum;

private:
    db::IDataProviderExtended& innerOrFail() {
        if (failing.nextCallFails()) {
            throw std::runtime_error("database or disk is full");
        }
        return inner;
    }

    db::IDataProviderExtended& inner;
    FailingCall failing{0};
};

} // namespace agent::test
