#pragma once

#include <charconv>
#include <optional>
#include <string>

namespace tolvubd {

/// The number after `prefix` in `name`; none when the name has another form.
inline std::optional<unsigned> numberAfter(const std::string& prefix, const std::string& name) {
    unsigned number = 0;
    const char* end = name.data() + name.size();
    if (!name.starts_with(prefix)) {
        return std::nullopt;
    }
    const auto parsed = std::from_chars(name.data() + prefix.size(), end, number);
    const bool whole = parsed.ec == std::errc() && parsed.ptr == end;
    return whole ? std::optional(number) : std::nullopt;
}

} // namespace tolvubd
