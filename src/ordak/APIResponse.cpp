#include "ordak/APIResponse.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

APIResponse makeJsonResponse(const nlohmann::json& json, int status) {
    // Texts from a disk or a script may not be valid UTF-8. The appliance can do more with a response that
    // has a replacement character than with no response.
    return {APIResponse::ContentType::json,
            json.empty() ? "" : json.dump(4, ' ', false, nlohmann::json::error_handler_t::replace), status};
}

} // namespace agent::ordak
