#pragma once

#include <string>

namespace agent::ordak {

/// The calls of the device API; method and URL of a request select one. The numbers index the interpreter's
/// table of handlers.
enum class APICall {
    basichost = 0,
    pair = 1,
    pairTicket = 2,
    host = 3,
    backup = 4,
    backupStatus = 5,
    backupList = 6,
    backupCancel = 7,
    logs = 8,
    command = 9,
    updateSupportModule = 10,
    upgradeGet = 11,
    upgradeDo = 12,
    logLevel = 13,
    services = 14,
    feature = 15,
    install = 16,
    pendingUpdate = 17,
    configGet = 18,
    configSet = 19,
    driverStatus = 20,
    invalid = 21,
};

/// The call's name for log lines; "unknown" for a value that isn't an enumerator.
std::string apiCallName(APICall call);

/// Finds the call of a request. URLs are compared exactly and case-sensitively.
APICall classifyAPICall(const std::string& method, const std::string& url);

} // namespace agent::ordak
