#pragma once

#include "Extents.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// What stands in the driver's JSON files, read with nothing taken on trust. All of it throws an exception
/// that is a std::exception for what isn't as it should be.
namespace tolvubd::fields {

/// Throws std::runtime_error unless it holds.
void require(bool condition, const char* what);

/// Parses a text whose lists and objects lie within each other, but no deeper than that.
nlohmann::json parse(const std::string& text, int deepest);

std::uint64_t number(const nlohmann::json& object, const char* key, std::uint64_t highest);
std::string uuid(const nlohmann::json& object, const char* key);
std::string absolutePath(const nlohmann::json& object, const char* key);

/// Offsets and lengths by turns.
nlohmann::json fromExtents(const std::vector<Extent>& extents);
std::vector<Extent> toExtents(const nlohmann::json& numbers);

template <class Item>
nlohmann::json fromList(const std::vector<Item>& items, nlohmann::json (*convert)(const Item&)) {
    nlohmann::json list = nlohmann::json::array();
    for (const Item& item : items) {
        list.push_back(convert(item));
    }
    return list;
}

template <class Item>
std::vector<Item> toList(const nlohmann::json& list, std::size_t most,
                         Item (*convert)(const nlohmann::json&)) {
    require(list.is_array() && list.size() <= most, "a list");
    std::vector<Item> items;
    for (const nlohmann::json& item : list) {
        items.push_back(convert(item));
    }
    return items;
}

/// EILSEQ where it holds a text that isn't UTF-8.
std::string dump(const nlohmann::json& document);

} // namespace tolvubd::fields
