#pragma once

#include "Text.h"

#include <nlohmann/json.hpp>

#include <ctime>
#include <optional>
#include <ostream>

namespace tools {

using Json = nlohmann::ordered_json;

/// Prints an object in several lines. Bytes that aren't valid text become replacement characters.
inline void printJson(std::ostream& out, const Json& document) {
    out << document.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

inline Json momentOrNull(std::optional<std::time_t> moment) {
    return moment ? Json(utcText(*moment)) : Json();
}

inline Json textOrNull(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

} // namespace tools
