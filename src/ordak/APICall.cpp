#include "ordak/APICall.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace agent::ordak {
namespace {

struct Route {
    APICall call;
    std::string_view name;
    std::string_view method;
    std::string_view url;
    bool isPrefix = false; ///< A backup's ID follows in the URL.
};

/// classifyAPICall takes the first route that matches.
constexpr std::array routes = {
    Route{APICall::basichost, "basichost", "GET", "/basichost"},
    Route{APICall::pair, "pair", "POST", "/pair"},
    Route{APICall::pairTicket, "pairTicket", "POST", "/agentPairTicket"},
    Route{APICall::host, "host", "GET", "/host"},
    Route{APICall::backup, "backup", "POST", "/backup"},
    Route{APICall::backupList, "backupList", "GET", "/backup"},
    Route{APICall::backupStatus, "backupStatus", "GET", "/backup/", true},
    Route{APICall::backupCancel, "backupCancel", "DELETE", "/backup/", true},
    Route{APICall::logs, "logs", "GET", "/event"},
    Route{APICall::command, "command", "POST", "/command"},
    Route{APICall::upgradeGet, "upgradeGet", "GET", "/upgrade"},
    Route{APICall::upgradeDo, "upgradeDo", "POST", "/upgrade"},
    Route{APICall::updateSupportModule, "updateSupportModule", "POST", "/updsptcmdmod"},
    Route{APICall::logLevel, "logLevel", "POST", "/logLevel"},
    Route{APICall::configGet, "configGet", "GET", "/config"},
    Route{APICall::configSet, "configSet", "POST", "/config"},
    Route{APICall::services, "services", "GET", "/v2/system/services"},
    Route{APICall::pendingUpdate, "pendingUpdate", "GET", "/v2/system/updates"},
    Route{APICall::feature, "feature", "GET", "/v2/feature"},
    Route{APICall::install, "install", "GET", "/v2/install"},
    Route{APICall::driverStatus, "driverStatus", "GET", "/v2/driver/status"},
};

bool leadsTo(const Route& route, std::string_view method, std::string_view url) {
    return method == route.method && (route.isPrefix ? url.starts_with(route.url) : url == route.url);
}

} // namespace

std::string apiCallName(APICall call) {
    if (call == APICall::invalid) {
        return "invalid";
    }
    const auto* const found =
        std::find_if(routes.begin(), routes.end(), [call](const Route& route) { return route.call == call; });
    return found == routes.end() ? "unknown" : std::string(found->name);
}

APICall classifyAPICall(const std::string& method, const std::string& url) {
    const auto* const found = std::find_if(routes.begin(), routes.end(),
                                           [&](const Route& route) { return leadsTo(route, method, url); });
    return found == routes.end() ? APICall::invalid : found->call;
}

} // namespace agent::ordak
