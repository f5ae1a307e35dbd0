#include "app/BackupHeartbeat.h"

#include <chrono>
#include <exception>
#include <string>

namespace agent::app {

namespace {

/// How long the appliance may stop asking about a backup after it has asked once.
constexpr std::chrono::seconds heartbeatTimeout(180);

bool isDisabled(db::IDataProviderExtended& dataProvider) {
    try {
        const std::string value = dataProvider.getConfigValue("disable_ordak_ping_timeout");
        return value == "true" || value == "1";
    } catch (const std::exception&) {
        return false;
    }
}

} // namespace

std::unique_ptr<core::Heartbeat> makeBackupHeartbeat(db::IDataProviderExtended& dataProvider) {
    return isDisabled(dataProvider) ? nullptr : std::make_unique<core::Heartbeat>(heartbeatTimeout);
}

} // namespace agent::app
