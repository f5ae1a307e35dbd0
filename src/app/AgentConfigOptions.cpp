#include "app/AgentConfigOptions.h"

namespace agent::app {

namespace {

ConfigOption flag(const char* defaultValue) {
    return {defaultValue, &typeid(bool)};
}

ConfigOption text(const char* defaultValue) {
    return {defaultValue, &typeid(std::string)};
}

ConfigOption number(const char* defaultValue, std::uint64_t minimum, std::uint64_t maximum) {
    return {defaultValue, &typeid(unsigned long), minimum, maximum};
}

} // namespace

// Only holepunch.enabled and the size of a CoW file are read. Instead of the other settings, constants are in
// force: in Retry.h, IscsiTransport.cpp, BackupHeartbeat.cpp and FilePrinter.h, for example.
ConfigOptions agentConfigOptions() {
    return {{std::regex(R"(\bvolumes\b\..+\.\bcowFileSizeMiB\b)")},
            {
                {"backup.heartbeat.enabled", flag("true")},
                {"backup.heartbeat.timeoutMinutes", number("3", 0, 10)},
                {"excluders.unused.enabled", flag("true")},
                {"log.lifetimeHours", number("168", 1, 8760)},
                {"autoupdate.checkIntervalHours", number("12", 1, 12)},
                {"autoupdate.shortCheckIntervalMinutes", number("5", 1, 5)},
                {"autoupdate.channel", text("stable")},
                {"transports.zephaneFTP.maxRetries", number("5", 0, 5)},
                {"transports.iscsi.maxRetries", number("5", 0, 5)},
                {"transports.iscsi.tcpUserTimeoutMilliseconds", number("60000", 0, 600000)},
                {"transports.iscsi.timeoutSeconds", number("60", 0, 600)},
                {"transports.iscsi.retrySleepDurationSeconds", number("60", 0, 600)},
                {"cache.timeoutMinutes", number("15", 0, 1440)},
                {"holepunch.enabled", flag("false")},
            }};
}

} // namespace agent::app
