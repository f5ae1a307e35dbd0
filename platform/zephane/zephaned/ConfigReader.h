#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>

namespace zephane {

using Json = nlohmann::ordered_json;

/// A value of a configuration, which knows its place for errors.
/// Owns:    nothing; the value has to stay.
/// Threads: any.
/// Fails:   ConfigError, where the value isn't what it is asked for.
class ConfigReader {
public:
    /// `file` is what errors begin with.
    ConfigReader(const Json& value, std::string file, std::string place = {})
        : value(value), file(std::move(file)), place(std::move(place)) {}

    [[nodiscard]] bool isList() const { return value.is_array(); }
    [[nodiscard]] std::string text() const;
    [[nodiscard]] bool flag() const;
    [[nodiscard]] std::uint64_t number(std::uint64_t least, std::uint64_t most) const;
    /// Calls `read` with each value of a list.
    void each(const std::function<void(const ConfigReader&)>& read) const;

    /// It is an object that has no other keys.
    void expectKeys(std::initializer_list<const char*> known) const;
    [[nodiscard]] bool has(const char* key) const { return value.contains(key); }
    /// The value of a key that has to be there.
    [[nodiscard]] ConfigReader at(const char* key) const;

    [[noreturn]] void refuse(const std::string& why) const;

private:
    void expect(bool isOfType, const char* type) const;

    const Json& value;
    std::string file;
    std::string place; ///< such as images[2].path; empty for all of it
};

} // namespace zephane
