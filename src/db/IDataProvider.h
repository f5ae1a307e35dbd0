#pragma once

#include "db/ChecksumType.h"
#include "info/log/ILogLevelStore.h"

#include <cstdint>
#include <string>
#include <vector>

namespace agent::db {

/// The persistent store of the agent: a key-value store, the identity of this device, and the image checksum
/// of each volume. When an operation returns, its changes survive the end of the process.
/// Owns:    the stored data; callers get copies.
/// Threads: any thread may call it; one operation runs at a time.
/// Fails:   every operation throws exceptions derived from std::runtime_error and leaves its output
///          parameters unchanged. If `validateProvider` throws, the daemon doesn't start.
class IDataProvider : public info::ILogLevelStore {
public:
    // ILogLevelStore declares getConfigValue and setConfigValue. setConfigValue deletes the old value, then
    // inserts the new one: if it throws, or the agent dies in between, the key may have no value.

    virtual void setVolumeChecksum(const std::string& uuid, std::uint32_t checksum, ChecksumType type) = 0;

    /// Creates or upgrades the tables. Must have run once before any other operation.
    virtual void validateProvider() = 0;

    /// Returns false if no device is stored.
    virtual bool getDevice(std::int32_t& id, std::string& ip, std::string& agentUUID) = 0;
    /// Deletes the old device, then inserts the new one, with the same risk as setConfigValue.
    virtual void setDevice(std::int32_t id, const std::string& ip, const std::string& agentUUID) = 0;

    /// Throws for an unknown volume, and for a volume without a checksum of a known type.
    virtual void getVolumeChecksum(const std::string& uuid, std::uint32_t& checksum, ChecksumType& type) = 0;
    virtual bool hasVolume(const std::string& uuid) = 0;
    virtual std::vector<std::string> getVolumeUUIDs() = 0;
};

} // namespace agent::db
