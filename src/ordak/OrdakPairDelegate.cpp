#include "ordak/OrdakPairDelegate.h"

namespace agent::ordak {

namespace {

constexpr std::int32_t notLoaded = 0;
constexpr std::int32_t unpaired = -1;

} // namespace

bool OrdakPairDelegate::isPaired() {
    const os::Lock lock(mutex);
    return load() != unpaired;
}

std::int32_t OrdakPairDelegate::getDeviceId() {
    const os::Lock lock(mutex);
    return load();
}

bool OrdakPairDelegate::isPairedWith(int id) {
    const os::Lock lock(mutex);
    return id > 0 && id == load();
}

bool OrdakPairDelegate::isAuthorized(int id, const std::string& address) {
    const os::Lock lock(mutex);
    const std::int32_t paired = load();
    if (paired == unpaired || id < 0 || id != paired) {
        return false;
    }
    if (address != ip) {
        ip = address;
        dataProvider.setDevice(deviceId, ip, agentUUID);
    }
    return true;
}

void OrdakPairDelegate::pair(int id, const std::string& address) {
    const os::Lock lock(mutex);
    dataProvider.setDevice(id, address, "");
    deviceId = id;
}

std::int32_t OrdakPairDelegate::load() {
    if (deviceId == notLoaded) {
        dataProvider.getDevice(deviceId, ip, agentUUID);
    }
    if (deviceId == notLoaded) {
        deviceId = unpaired;
    }
    return deviceId;
}

} // namespace agent::ordak
