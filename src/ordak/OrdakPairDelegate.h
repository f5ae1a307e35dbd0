#pragma once

#include "db/IDataProvider.h"

#include <cstdint>
#include <mutex>
#include <string>

namespace agent::ordak {

/// The pairing of this agent with its one appliance, kept in memory in front of the store.
/// Owns:    the copy in memory; the store must outlive it.
/// Threads: safe from any. The mutex is held while the store is written, so that a request of the old device
///          can't write its pairing over the new one's; nothing that the store calls comes back here.
/// Fails:   with what the store throws. A pairing that can't be read is asked for again the next time.
class OrdakPairDelegate {
public:
    explicit OrdakPairDelegate(db::IDataProvider& dataProvider) : dataProvider(dataProvider) {}

    [[nodiscard]] bool isPaired();
    /// The paired device, or -1.
    [[nodiscard]] std::int32_t getDeviceId();
    /// Whether this is the paired device; nothing is stored.
    [[nodiscard]] bool isPairedWith(int id);
    /// True for the paired device, from wherever it calls; a new address is stored.
    [[nodiscard]] bool isAuthorized(int id, const std::string& address);
    /// Replaces any earlier pairing.
    void pair(int id, const std::string& address);

private:
    /// The mutex must be held. As getDeviceId.
    std::int32_t load();

    db::IDataProvider& dataProvider;
    std::mutex mutex;
    std::int32_t deviceId = 0; // guarded by mutex; 0 until loaded, -1 if there is no pairing
    std::string ip;            // guarded by mutex; where the device last called from
    std::string agentUUID;     // guarded by mutex; stored with the pairing, of no use here
};

} // namespace agent::ordak
