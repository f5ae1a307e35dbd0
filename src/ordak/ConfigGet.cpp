#include "ordak/ConfigGet.h"

#include <nlohmann/json.hpp>

namespace agent::ordak {

APIResponse ConfigGet::operator()() const {
    return makeJsonResponse(config.dump(), 200);
}

} // namespace agent::ordak
