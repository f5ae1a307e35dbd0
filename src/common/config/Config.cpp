#include "common/config/Config.h"

#include "common/PeerText.h"
#include "common/config/UnsignedNumber.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace agent {

namespace {

using nlohmann::json;

/// std::regex recurses with the length of its input. Longer keys are invalid: they could use up the stack.
constexpr std::size_t maxKeyBytes = 1024;

/// How a pair is shown in messages.
std::string pairText(const std::string& key, const json& value) {
    constexpr std::size_t maxBytes = 1024; // bytes of the key, and of the value
    const std::string text = value.dump(-1, ' ', false, json::error_handler_t::replace);
    return "{\"" + printable(shortened(key, maxBytes)) + "\" : " + shortened(text, maxBytes) + "}";
}

/// A valid value as it is stored.
json storedForm(const json& value) {
    return value.is_number() ? json(asUnsigned(value).value()) : value;
}

bool isWithinBounds(const ConfigOption& option, unsigned long number) {
    return option.minimum <= number && number <= option.maximum;
}

bool fits(const ConfigOption& option, const json& value) {
    if (*option.type == typeid(bool)) {
        return value.is_boolean();
    }
    if (*option.type == typeid(std::string)) {
        return value.is_string();
    }
    const std::optional<unsigned long> number = asUnsigned(value);
    return number && isWithinBounds(option, *number);
}

} // namespace

Config::Config(info::Logger& logger, IConfigDataProvider& provider, ConfigOptions options)
    : logger(logger), provider(provider), options(std::move(options)) {
    reportInvalidStoredValues();
}

void Config::get(const std::string& key, bool& out) const {
    const bool fallback = find(key, typeid(bool)).defaultValue == "true";
    try {
        out = provider.get(key, fallback);
    } catch (const json::type_error&) {
        out = fallback;
    }
}

void Config::get(const std::string& key, unsigned long& out) const {
    const ConfigOption& option = find(key, typeid(unsigned long));
    const unsigned long fallback = std::stoul(option.defaultValue);
    try {
        const unsigned long stored = provider.get(key, fallback);
        out = isWithinBounds(option, stored) ? stored : fallback;
    } catch (const json::type_error&) {
        out = fallback;
    }
}

void Config::get(const std::string& key, std::string& out) const {
    const std::string& fallback = find(key, typeid(std::string)).defaultValue;
    try {
        out = provider.get(key, fallback);
    } catch (const json::type_error&) {
        out = fallback;
    }
}

json Config::dump() const {
    return provider.dump();
}

void Config::set(const json& pairs) {
    if (!pairs.is_object()) {
        throw std::invalid_argument("The agent configuration to set must be a JSON object");
    }
    for (const auto& [key, value] : pairs.items()) {
        if (!isValid(key, value)) {
            throw std::invalid_argument("Invalid agent configuration option " + pairText(key, value));
        }
    }
    json stored = json::object();
    for (const auto& [key, value] : pairs.items()) {
        info::LogEntry(logger, info::level::info)
            << "Setting agent configuration option " << pairText(key, value);
        stored[key] = storedForm(value);
    }
    provider.set(stored);
}

const ConfigOption& Config::find(const std::string& key, const std::type_info& type) const {
    const auto row = options.table.find(key);
    if (row == options.table.end()) {
        throw std::invalid_argument("A configurable option with the key " + key + " does not exist!");
    }
    if (*row->second.type != type) {
        throw std::invalid_argument("The configurable option with the key " + key + " is of another type");
    }
    return row->second;
}

bool Config::isValid(const std::string& key, const json& value) const {
    const auto row = options.table.find(key);
    if (row != options.table.end()) {
        return fits(row->second, value);
    }
    const bool matches =
        key.size() <= maxKeyBytes &&
        std::any_of(options.patterns.begin(), options.patterns.end(),
                    [&](const std::regex& pattern) { return std::regex_match(key, pattern); });
    return matches && value.is_number_unsigned();
}

void Config::reportInvalidStoredValues() const {
    const json stored = provider.dump();
    if (!stored.is_object()) {
        return;
    }
    for (const auto& [key, value] : stored.items()) {
        const auto row = options.table.find(key);
        if (row != options.table.end() && !fits(row->second, value)) {
            info::LogEntry(logger, info::level::error)
                << "Found invalid agent configuration option " << pairText(key, value);
        }
    }
}

} // namespace agent
