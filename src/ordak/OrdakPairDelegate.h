#pragma once

#include "db/IDataProvider.h"
#include "os/Mutex.h"

#include <cstdint>
#include <string>

namespace agent::ordak {

/// The pairing of this agent with its one appliance, cached in front of the store.
/// Owns:    the cached copy; the store must outlive it.
/// Threads: any thread may call it. It holds its mutex while it writes to the store, so that a request of the
///          old device can't overwrite the pairing with the new one. The store must not call this object.
/// Fails:   the functions pass on the store's exceptions, which are derived from std::runtime_error. If
///          reading fails, the next call reads again.
class OrdakPairDelegate {
public:
    explicit OrdakPairDelegate(db::IDataProvider& dataProvider) : dataProvider(dataProvider) {}

    [[nodiscard]] bool isPaired();
    /// The paired device, or -1.
    [[nodiscard]] std::int32_t getDeviceId();
    /// Whether `id` is the paired device. Stores nothing.
    [[nodiscard]] bool isPairedWith(int id);
    /// Whether `id` is the paired device, whatever its address. Stores a new address.
    [[nodiscard]] bool isAuthorized(int id, const std::string& address);
    /// Replaces any earlier pairing.
    void pair(int id, const std::string& address);

private:
    /// Like getDeviceId.
    std::int32_t load() REQUIRES(mutex);

    db::IDataProvider& dataProvider;
    os::Mutex mutex;
    std::int32_t deviceId GUARDED_BY(mutex) = 0; // 0 until loaded, -1 if there is no pairing
    std::string ip GUARDED_BY(mutex);            // where the device last called from
    std::string agentUUID GUARDED_BY(mutex);     // stored with the pairing, but not used here
};

} // namespace agent::ordak
