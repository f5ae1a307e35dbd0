#include "JsonFields.h"

#include "Failure.h"
#include "Uuid.h"

#include <limits>
#include <stdexcept>

namespace tolvubd::fields {

namespace {

using nlohmann::json;

constexpr std::uint64_t largestFile = std::numeric_limits<std::int64_t>::max();

} // namespace

void require(bool condition, const char* what) {
    if (!condition) {
        throw std::runtime_error(what);
    }
}

json parse(const std::string& text, int deepest) {
    return json::parse(text, [deepest](int depth, json::parse_event_t /*event*/, json& /*parsed*/) {
        require(depth <= deepest, "too deep");
        return true;
    });
}

std::uint64_t number(const json& object, const char* key, std::uint64_t highest) {
    const json& value = object.at(key);
    require(value.is_number_unsigned() && value.get<std::uint64_t>() <= highest, key);
    return value.get<std::uint64_t>();
}

std::string uuid(const json& object, const char* key) {
    auto text = object.at(key).get<std::string>();
    require(isUuid(text), key);
    return text;
}

std::string absolutePath(const json& object, const char* key) {
    auto text = object.at(key).get<std::string>();
    require(text.starts_with('/') && text.find('\0') == std::string::npos, key);
    return text;
}

json fromExtents(const std::vector<Extent>& extents) {
    json numbers = json::array();
    for (const Extent& extent : extents) {
        numbers.push_back(extent.offset);
        numbers.push_back(extent.length);
    }
    return numbers;
}

std::vector<Extent> toExtents(const json& numbers) {
    require(numbers.is_array() && numbers.size() % 2 == 0, "extents");
    std::vector<Extent> extents;
    for (std::size_t index = 0; index < numbers.size(); index += 2) {
        require(numbers[index].is_number_unsigned() && numbers[index + 1].is_number_unsigned(), "an extent");
        const Extent extent{numbers[index].get<std::uint64_t>(), numbers[index + 1].get<std::uint64_t>()};
        require(extent.offset <= largestFile && extent.length <= largestFile, "an extent");
        extents.push_back(extent);
    }
    return extents;
}

std::string dump(const json& document) {
    try {
        return document.dump(4) + "\n";
    } catch (const json::exception&) { // a path may be any sequence of bytes, but JSON is UTF-8
        fail(EILSEQ, "a path that isn't UTF-8");
    }
}

} // namespace tolvubd::fields
