#include "ordak/BasicHost.h"

#include "ordak/PropertyOrError.h"

namespace agent::ordak {

APIResponse BasicHost::operator()() const {
    return makeJsonResponse(
        {{"os", propertyOrError(logger, [&] { return systemInfo.getOSVersion(); })},
         {"os_arch", propertyOrError(logger, [&] { return systemInfo.getArchitecture(); })},
         {"hostName", propertyOrError(logger, [&] { return systemInfo.getHostName(); })}},
        200);
}

} // namespace agent::ordak
