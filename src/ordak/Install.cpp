#include "ordak/Install.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

APIResponse Install::operator()() const {
    return makeJsonResponse({{"rebootRequired", driverInfo.isRebootRequired()}}, 200);
}

} // namespace agent::ordak
