#pragma once

#include <string>
#include <unordered_map>

namespace agent::ordak {

/// The data of a request, besides its body, that an API handler may need.
struct APIExtendedData {
    int deviceId = -1;   ///< From the client's certificate.
    std::string ip;      ///< The client's address; may be empty.
    std::string urlData; ///< The backup's ID, for the calls that name one in the URL; else empty.
    std::unordered_map<std::string, std::string> args; ///< The URL arguments of a GET.
};

} // namespace agent::ordak
