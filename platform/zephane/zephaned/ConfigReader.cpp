#include "zephane/zephaned/ConfigReader.h"

#include "zephane/zephaned/Config.h"

#include <algorithm>

namespace zephane {

namespace {

std::string joined(std::initializer_list<const char*> words) {
    std::string text;
    for (const char* word : words) {
        text += (text.empty() ? "" : ", ") + std::string(word);
    }
    return text;
}

} // namespace

std::string ConfigReader::text() const {
    expect(value.is_string(), "a text");
    return value.get<std::string>();
}

bool ConfigReader::flag() const {
    expect(value.is_boolean(), "true or false");
    return value.get<bool>();
}

std::uint64_t ConfigReader::number(std::uint64_t least, std::uint64_t most) const {
    const std::string range = "a whole number from " + std::to_string(least) + " to " + std::to_string(most);
    expect(value.is_number_unsigned(), range.c_str());
    const auto number = value.get<std::uint64_t>();
    expect(number >= least && number <= most, range.c_str());
    return number;
}

void ConfigReader::each(const std::function<void(const ConfigReader&)>& read) const {
    expect(value.is_array(), "a list, in square brackets");
    for (std::size_t index = 0; index < value.size(); ++index) {
        read(ConfigReader(value[index], file, place + "[" + std::to_string(index) + "]"));
    }
}

void ConfigReader::expectKeys(std::initializer_list<const char*> known) const {
    expect(value.is_object(), "an object, in braces");
    for (const auto& item : value.items()) {
        if (std::ranges::find(known, item.key()) == known.end()) {
            refuse("there is no key \"" + item.key() + "\" here; there are: " + joined(known));
        }
    }
}

ConfigReader ConfigReader::at(const char* key) const {
    if (!has(key)) {
        refuse("the key \"" + std::string(key) + "\" is missing");
    }
    return {value.at(key), file, place + (place.empty() ? "" : ".") + key};
}

void ConfigReader::refuse(const std::string& why) const {
    throw ConfigError(file + ": " + (place.empty() ? "" : place + ": ") + why);
}

void ConfigReader::expect(bool isOfType, const char* type) const {
    if (!isOfType) {
        // Shows only a number, or else the type: any other value may hold a secret.
        const std::string found = value.is_number() ? value.dump() : value.type_name();
        refuse("this has to be " + std::string(type) + ", and is " + found);
    }
}

} // namespace zephane
