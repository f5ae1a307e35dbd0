#pragma once

#include "db/ChecksumType.h"
#include "info/log/ILogLevelStore.h"

#include <cstdint>
#include <string>
#include <vector>

namespace agent::db {

/// The durable store of the agent: a key-value store, who this device is, and the image checksum of each
/// volume. What an operation has written when it returns outlives the process.
/// Owns:    nothing that callers can hold on to; every result is a copy.
/// Threads: safe from any; one operation runs at a time.
/// Fails:   by exception, derived from std::runtime_error; outputs are left as they were. A failed
///          `validateProvider` fails the start of the daemon, anything else the operation at hand.
class IDataProvider : public info::ILogLevelStore {
public:
    // getConfigValue and setConfigValue come with ILogLevelStore. A set replaces the value in two steps: when
    // it throws, or the agent dies within it, the key may be left without a value.

    virtual void setVolumeChecksum(const std::string& uuid, std::uint32_t checksum, ChecksumType type) = 0;

    /// Creates or upgrades the tables. Must have run once before any other operation.
    virtual void validateProvider() = 0;

    /// False while no device has been set.
    virtual bool getDevice(std::int32_t& id, std::string& ip, std::string& agentUUID) = 0;
    /// Replaces the device in two steps, as setConfigValue does.
    virtual void setDevice(std::int32_t id, const std::string& ip, const std::string& agentUUID) = 0;

    /// Throws for an unknown volume, and for one without a checksum of a known type.
    virtual void getVolumeChecksum(const std::string& uuid, std::uint32_t& checksum, ChecksumType& type) = 0;
    virtual bool hasVolume(const std::string& uuid) = 0;
    virtual std::vector<std::string> getVolumeUUIDs() = 0;
};

} // namespace agent::db
