#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>

namespace zephane {

using Json = nlohmann::ordered_json;

/// A value of the configuration, with its place in the file for error messages.
/// Owns:    nothing; the value must outlive it.
/// Threads: any.
/// Fails:   ConfigError if the value isn't of the type asked for, or out of range.
class ConfigReader {
public:
    /// Errors begin with `file`.
    ConfigReader(const Json& value, std::string file, std::string place = {})
        : value(value), file(std::move(file)), place(std::move(place)) {}

    [[nodiscard]] bool isList() const { return value.is_array(); }
    [[nodiscard]] std::string text() const;
    [[nodiscard]] bool flag() const;
    [[nodiscard]] std::uint64_t number(std::uint64_t least, std::uint64_t most) const;
    /// Calls `read` with each value of a list.
    void each(const std::function<void(const ConfigReader&)>& read) const;

    /// Requires an object without any other keys.
    void expectKeys(std::initializer_list<const char*> known) const;
    [[nodiscard]] bool has(const char* key) const { return value.contains(key); }
    /// The value of a key; throws ConfigError if the key is missing.
    [[nodiscard]] ConfigReader at(const char* key) const;

    [[noreturn]] void refuse(const std::string& why) const;

private:
    void expect(bool isOfType, const char* type) const;

    const Json& value;
    std::string file;
    std::string place; ///< such as images[2].path; empty for all of it
};

} // namespace zephane
