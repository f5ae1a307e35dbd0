#pragma once

#include <nlohmann/json_fwd.hpp>

#include <string>

namespace agent::ordak {

/// The response of an API handler.
struct APIResponse {
    enum class ContentType { plainText = 0, json = 1 };

    ContentType contentType = ContentType::plainText;
    std::string text;
    int status = 200; ///< The HTTP status.
};

/// Makes a JSON response, indented by 4 blanks. Null, an empty object and an empty array give an empty text.
APIResponse makeJsonResponse(const nlohmann::json& json, int status);

} // namespace agent::ordak
