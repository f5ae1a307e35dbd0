#include "ordak/APIResponse.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

APIResponse makeJsonResponse(const nlohmann::json& json, int status) {
    // What came from a disk or a script need not be UTF-8; an answer with a replaced character serves the
    // appliance better than none.
    return {APIResponse::ContentType::json,
            json.empty() ? "" : json.dump(4, ' ', false, nlohmann::json::error_handler_t::replace), status};
}

} // namespace agent::ordak
