#include "ordak/BackupCancel.h"

#include "common/Exceptions.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

APIResponse BackupCancel::operator()(const std::string& /*body*/, const APIExtendedData& request) {
    std::string refusal;
    bool success = true;
    try {
        engine.cancelBackup(request.urlData);
    } catch (const exception::bad_request& error) {
        success = false;
        refusal = error.what();
    }
    return makeJsonResponse({{"success", success}, {"errorString", refusal}}, 200);
}

} // namespace agent::ordak
