#include "ordak/ConfigSet.h"

#include "common/Exceptions.h"
#include "common/json/ParseJson.h"

#include <nlohmann/json.hpp>

#include <exception>

namespace agent::ordak {

namespace {

nlohmann::json parse(const std::string& body) {
    try {
        return parseJson(body);
    } catch (const std::exception& error) {
        throw exception::bad_request(std::string("Failed to parse JSON config set request: ") + error.what());
    }
}

} // namespace

APIResponse ConfigSet::operator()(const std::string& body) {
    const nlohmann::json pairs = parse(body);
    try {
        const os::Lock lock(mutex);
        config.set(pairs);
    } catch (const std::exception& error) {
        throw exception::bad_request(std::string("Failed to set config options: ") + error.what());
    }
    return {};
}

} // namespace agent::ordak
