#include "common/json/ParseJson.h"

#include "common/PeerText.h"

#include <nlohmann/json.hpp>

#include <string>

namespace agent {

namespace {

using nlohmann::json;

constexpr int parseErrorId = 101; // the JSON library's number for a syntax error

[[noreturn]] void refuse(const std::string& reason, std::size_t position = 0) {
    throw json::parse_error::create(parseErrorId, position, reason, static_cast<const json*>(nullptr));
}

/// A SAX handler that checks the limits without storing anything. The library's own callback for checking a
/// document while building it takes quadratic time for long arrays.
class LimitChecker : public nlohmann::json_sax<json> {
public:
    bool null() override { return count(); }
    bool boolean(bool /*value*/) override { return count(); }
    bool number_integer(number_integer_t /*value*/) override { return count(); }
    bool number_unsigned(number_unsigned_t /*value*/) override { return count(); }
    bool number_float(number_float_t /*value*/, const string_t& /*text*/) override { return count(); }
    bool string(string_t& /*value*/) override { return count(); }
    bool binary(binary_t& /*value*/) override { return count(); }
    bool key(string_t& /*value*/) override { return true; }
    bool start_object(std::size_t /*elements*/) override { return descend(); }
    bool end_object() override { return ascend(); }
    bool start_array(std::size_t /*elements*/) override { return descend(); }
    bool end_array() override { return ascend(); }
    bool parse_error(std::size_t position, const std::string& /*token*/,
                     const json::exception& error) override {
        constexpr std::size_t maxBytes = 1024;
        const std::string_view text = error.what(); // contains all of the text that it couldn't read
        if (text.size() > maxBytes) {
            const std::size_t reason = text.find("syntax error");
            refuse(shortened(text.substr(reason == std::string_view::npos ? 0 : reason), maxBytes), position);
        }
        return false; // json::parse will find the same error, and throw
    }

private:
    bool count() {
        if (++values > maxJsonValues) {
            refuse("more than " + std::to_string(maxJsonValues) + " values");
        }
        return true;
    }

    bool descend() {
        if (++depth > maxJsonNesting) {
            refuse("nested deeper than " + std::to_string(maxJsonNesting) + " levels");
        }
        return count();
    }

    bool ascend() {
        --depth;
        return true;
    }

    std::size_t values = 0;
    int depth = 0;
};

} // namespace

json parseJson(std::string_view text) {
    LimitChecker checker;
    json::sax_parse(text.begin(), text.end(), &checker);
    return json::parse(text.begin(), text.end());
}

} // namespace agent
