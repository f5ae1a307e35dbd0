#include "ordak/BasicHost.h"

#include "ordak/HostFact.h"

namespace agent::ordak {

APIResponse BasicHost::operator()() const {
    return makeJsonResponse({{"os", hostFact(logger, [&] { return systemInfo.getOSVersion(); })},
                             {"os_arch", hostFact(logger, [&] { return systemInfo.getArchitecture(); })},
                             {"hostName", hostFact(logger, [&] { return systemInfo.getHostName(); })}},
                            200);
}

} // namespace agent::ordak
