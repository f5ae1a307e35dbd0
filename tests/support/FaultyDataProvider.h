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

    std::string getConfigValue(const std::string& key) override { return reached().getConfigValue(key); }
    void setConfigValue(const std::string& key, const std::string& value) override {
        reached().setConfigValue(key, value);
    }
    void setVolumeChecksum(const std::string& uuid, std::uint32_t checksum, db::ChecksumType type) override {
        if (checksum != 0 && onVouch) {
            onVouch();
        }
        reached().setVolumeChecksum(uuid, checksum, type);
    }
    void validateProvider() override { reached().validateProvider(); }
    bool getDevice(std::int32_t& id, std::string& ip, std::string& agentUUID) override {
        return reached().getDevice(id, ip, agentUUID);
    }
    void setDevice(std::int32_t id, const std::string& ip, const std::string& agentUUID) override {
        reached().setDevice(id, ip, agentUUID);
    }
    void getVolumeChecksum(const std::string& uuid, std::uint32_t& checksum,
                           db::ChecksumType& type) override {
        reached().getVolumeChecksum(uuid, checksum, type);
    }
    bool hasVolume(const std::string& uuid) override { return reached().hasVolume(uuid); }
    std::vector<std::string> getVolumeUUIDs() override { return reached().getVolumeUUIDs(); }
    bool getVolumeJournalChangeId(const std::string& uuid, db::ChangeContext context,
                                  std::uint64_t& journalId, std::uint64_t& changeId) override {
        return reached().getVolumeJournalChangeId(uuid, context, journalId, changeId);
    }
    void setVolumeJournalChangeId(const std::string& uuid, db::ChangeContext context, std::uint64_t journalId,
                                  std::uint64_t changeId) override {
        reached().setVolumeJournalChangeId(uuid, context, journalId, changeId);
    }
    void setVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t blocks) override {
        reached().setVolumeIncrementalSizeBlocks(uuid, blocks);
    }
    bool getVolumeIncrementalSizeBlocks(const std::string& uuid, std::uint64_t& blocks) override {
        return reached().getVolumeIncrementalSizeBlocks(uuid, blocks);
    }
    std::string getAgentUUID() override { return reached().getAgentUUID(); }

    [[nodiscard]] bool hasFailed() const { return failing.hasCome(); }

    std::function<void()> onVouch; ///< called before the checksum of a whole image is stored; may throw

private:
    db::IDataProviderExtended& reached() {
        if (failing.isNow()) {
            throw std::runtime_error("database or disk is full");
        }
        return inner;
    }

    db::IDataProviderExtended& inner;
    FailingCall failing{0};
};

} // namespace agent::test
