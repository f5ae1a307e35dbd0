#pragma once

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstddef>
#include <exception>
#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace agent::test {

/// Makes hostile variants of a valid JSON body. The seed is fixed, so every run makes the same ones.
class BodyMutator {
public:
    explicit BodyMutator(std::string valid) : valid(std::move(valid)) {}

    std::string next() { return below(2) == 0 ? mutateBytes() : mutateValues(); }

private:
    using json = nlohmann::json;

    std::size_t below(std::size_t limit) { return limit == 0 ? 0 : random() % limit; }

    // Edits the text: most results aren't JSON any more, so this tries the parser.
    std::string mutateBytes() {
        std::string body = valid;
        for (std::size_t edits = 1 + below(4); edits > 0; --edits) {
            const std::size_t at = below(body.size());
            const std::size_t length = below(body.size() - at) % 40;
            switch (below(5)) {
            case 0:
                body.resize(at);
                break;
            case 1:
                body.erase(at, length);
                break;
            case 2:
                body.insert(at, body.substr(at, length));
                break;
            case 3:
                body.insert(at, std::string(1 + below(400), "[{\"0-\xff\\"[below(7)]));
                break;
            default:
                if (at < body.size()) {
                    body[at] = static_cast<char>(body[at] ^ (1 << below(8)));
                }
            }
        }
        return body;
    }

    // Edits the parsed document: the result is always JSON, so this tries what reads the parsed values.
    std::string mutateValues() {
        json document = json::parse(valid);
        for (std::size_t edits = 1 + below(3); edits > 0; --edits) {
            std::vector<json*> places;
            collect(document, places);
            json& place = *places[below(places.size())];
            switch (below(4)) {
            case 0:
                if (!place.empty() && place.is_structured()) {
                    place.erase(std::next(place.begin(), static_cast<std::ptrdiff_t>(below(place.size()))));
                }
                break;
            case 1:
                if (place.is_array() && !place.empty()) {
                    place.push_back(json(place[below(place.size())]));
                }
                break;
            case 2:
                place = json{{"x", std::move(place)}};
                break;
            default:
                place = hostileValue();
            }
        }
        return document.dump(-1, ' ', false, json::error_handler_t::replace);
    }

    // Values at the limits of integers, of the wrong type, or known to other fields: those that parsers
    // confuse.
    json hostileValue() {
        static const std::vector<json> values = {nullptr,
                                                 true,
                                                 false,
                                                 0,
                                                 1,
                                                 -1,
                                                 6,
                                                 7,
                                                 12,
                                                 60,
                                                 2147483647,
                                                 2147483648,
                                                 -2147483649,
                                                 4294967308,
                                                 UINT64_MAX,
                                                 INT64_MIN,
                                                 0.5,
                                                 -0.5,
                                                 1e300,
                                                 -1e300,
                                                 18446744073709551616.0,
                                                 "",
                                                 "12",
                                                 ":",
                                                 "1:2:3",
                                                 "host:70000",
                                                 "host:99999999999",
                                                 "zephane",
                                                 "zephaneftp",
                                                 "TVD",
                                                 std::string(10'000, 'x'),
                                                 std::string("nul\0inside", 10),
                                                 "%s%n%d",
                                                 json::array(),
                                                 json::object(),
                                                 json{1, "x"},
                                                 json{{"guid", 1}}};
        return values[below(values.size())];
    }

    static void collect(json& value, std::vector<json*>& places) {
        places.push_back(&value);
        if (value.is_structured()) {
            for (json& inner : value) {
                collect(inner, places);
            }
        }
    }

    std::string valid;
    std::mt19937 random{20260101}; // NOLINT(cert-msc51-cpp): the same bodies in every run
};

/// Gives each body to the handler, which must either answer it or throw a std::exception. Returns how many
/// bodies it answered.
inline int countAnswered(const std::function<void(const std::string& body)>& handler,
                         const std::vector<std::string>& bodies) {
    int answered = 0;
    for (const std::string& body : bodies) {
        try {
            handler(body);
            ++answered;
        } catch (const std::exception& error) {
            EXPECT_NE(error.what(), nullptr);
        }
    }
    return answered;
}

/// Gives a handler `count` variants of a valid body, and some bodies that no mutation produces. Returns how
/// many bodies it answered.
inline int countAnswersToMutations(const std::string& valid,
                                   const std::function<void(const std::string& body)>& handler,
                                   int count = 3000) {
    std::vector<std::string> bodies = {"",
                                       " ",
                                       "null",
                                       "[]",
                                       "{}",
                                       "1e999",
                                       "\xff\xfe",
                                       std::string(1000, '\0'),
                                       std::string(10'000, '['),
                                       std::string(10'000'000, '[')};
    std::string nested;
    for (int level = 0; level < 10'000; ++level) {
        nested += "{\"volumes\":";
    }
    bodies.push_back(nested + "1" + std::string(10'000, '}'));
    BodyMutator mutator(valid);
    for (int i = 0; i < count; ++i) {
        bodies.push_back(mutator.next());
    }
    return countAnswered(handler, bodies);
}

} // namespace agent::test
