#include "common/json/ParseJson.h"

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

namespace {

using nlohmann::json;

constexpr int parseErrorId = 101; // the library's number for an unexpected text

[[noreturn]] void refuse(const std::string& reason) {
    throw json::parse_error::create(parseErrorId, std::size_t{0}, reason, static_cast<const json*>(nullptr));
}

/// Watches a document grow while it is parsed.
class Limits {
public:
    bool operator()(int depth, json::parse_event_t event, const json& /*parsed*/) {
        if (event == json::parse_event_t::object_start || event == json::parse_event_t::array_start) {
            if (depth >= deepestJsonNesting) {
                refuse("nested deeper than " + std::to_string(deepestJsonNesting) + " levels");
            }
            count();
        } else if (event == json::parse_event_t::value) {
            count();
        }
        return true;
    }

private:
    void count() {
        if (++values > mostJsonValues) {
            refuse("more than " + std::to_string(mostJsonValues) + " values");
        }
    }

    std::size_t values = 0;
};

} // namespace

json parseJson(std::string_view text) {
    return json::parse(text.begin(), text.end(), Limits());
}

} // namespace agent
