#pragma once

#include "Extents.h"

#include <nlohmann/json.hpp>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

/// Helpers to read the driver's JSON files, which aren't trusted. They throw an exception derived from
/// std::exception when a value isn't valid.
namespace tolvubd::fields {

/// Throws std::runtime_error unless the condition holds.
void require(bool condition, const char* what);

/// Parses a text; throws if its lists and objects are nested deeper than `deepest`.
nlohmann::json parse(const std::string& text, int deepest);

std::uint64_t number(const nlohmann::json& object, const char* key, std::uint64_t highest);
std::string uuid(const nlohmann::json& object, const char* key);
std::string absolutePath(const nlohmann::json& object, const char* key);

/// A flat list: the offset and length of each extent in turn.
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

/// Throws EILSEQ when the document has a text that isn't UTF-8.
std::string dump(const nlohmann::json& document);

} // namespace tolvubd::fields
