#include "common/config/JSONConfigDataProvider.h"

#include "common/File.h"
#include "common/config/UnsignedNumber.h"
#include "common/json/ParseJson.h"

#include <fstream>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace agent {

namespace {

using nlohmann::json;

constexpr std::size_t maxFileBytes = 1024UL * 1024;
/// Only root may read the file: it may contain settings that not every user of the machine should see.
constexpr mode_t fileMode = 0600;

/// Parses settings, both when the file is read and to check a text before it is written.
json parseDocument(const std::string& text) {
    if (text.size() > maxFileBytes) {
        throw std::runtime_error("larger than " + std::to_string(maxFileBytes) + " bytes");
    }
    return parseJson(text);
}

json readDocument(const Path& path) {
    std::ifstream file(path.str(), std::ios::binary);
    if (!file) {
        return json::object();
    }
    std::string text(maxFileBytes + 1, '\0');
    file.read(text.data(), static_cast<std::streamsize>(text.size()));
    text.resize(static_cast<std::size_t>(file.gcount()));
    try {
        if (file.bad()) { // a directory, or a disk that can only read part of the file
            throw std::runtime_error("it can't be read");
        }
        return parseDocument(text);
    } catch (const std::exception& error) {
        throw std::runtime_error("Could not read the configuration file \"" + path.str() +
                                 "\": " + error.what());
    }
}

/// Parses `text` as the next start of the agent will do.
json readBack(const std::string& text) {
    try {
        return parseDocument(text);
    } catch (const std::exception& error) {
        throw std::runtime_error(std::string("The configuration could not be read back: ") + error.what());
    }
}

} // namespace

JSONConfigDataProvider::JSONConfigDataProvider(Path path)
    : path(std::move(path)), document(readDocument(this->path)) {}

std::string JSONConfigDataProvider::get(const std::string& key, const std::string& fallback) const {
    return read(key, fallback);
}

unsigned long JSONConfigDataProvider::get(const std::string& key, unsigned long fallback) const {
    return read(key, fallback);
}

bool JSONConfigDataProvider::get(const std::string& key, bool fallback) const {
    return read(key, fallback);
}

void JSONConfigDataProvider::set(const std::string& key, const std::string& value) {
    write(key, value);
}

void JSONConfigDataProvider::set(const std::string& key, unsigned long value) {
    write(key, value);
}

void JSONConfigDataProvider::set(const std::string& key, bool value) {
    write(key, value);
}

void JSONConfigDataProvider::set(const json& pairs) {
    if (pairs.empty()) {
        return;
    }
    const os::Lock lock(mutex);
    json changed = document;
    for (const auto& [key, value] : pairs.items()) {
        changed[key] = value;
    }
    const std::string text = changed.dump(4) + "\n";
    json checked = readBack(text);
    file::replace(path, text, fileMode);
    document = std::move(checked);
}

json JSONConfigDataProvider::dump() const {
    const os::Lock lock(mutex);
    return document;
}

template <typename Value>
Value JSONConfigDataProvider::read(const std::string& key, const Value& fallback) const {
    const os::Lock lock(mutex);
    if (!document.is_object()) {
        return fallback;
    }
    const auto found = document.find(key);
    if (found == document.end()) {
        return fallback;
    }
    if constexpr (std::is_same_v<Value, unsigned long>) {
        // The library would convert even a fraction that the type can't hold, which is undefined.
        const std::optional<unsigned long> number = asUnsigned(*found);
        if (!number) {
            throw json::type_error::create(302, "type must be an unsigned number", &*found);
        }
        return *number;
    } else {
        return found->template get<Value>();
    }
}

template <typename Value>
void JSONConfigDataProvider::write(const std::string& key, const Value& value) {
    json pair = json::object();
    pair[key] = value;
    set(pair);
}

} // namespace agent
