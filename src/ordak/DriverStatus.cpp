#include "ordak/DriverStatus.h"

#include <nlohmann/json.hpp>

#include <exception>

namespace agent::ordak {

namespace {

std::string statusText(const IDriverInfoProvider& driverInfo) {
    try {
        return driverInfo.getDriverStatus();
    } catch (const std::exception&) {
        return "Not Available";
    }
}

} // namespace

APIResponse DriverStatus::operator()() const {
    return makeJsonResponse({{"driverStatus", statusText(driverInfo)}}, 200);
}

} // namespace agent::ordak
