#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string_view>

namespace agent {

/// Deeper documents are refused: what walks through a document later, down to its destructor, may recurse.
inline constexpr int deepestJsonNesting = 128;
/// Documents of more values are refused: a short text such as "[[],[],..." needs twenty times its size once
/// it is parsed.
inline constexpr std::size_t mostJsonValues = 1'000'000;

/// Parses a text that anybody may have written. Throws what the JSON library throws for a text that is no
/// JSON (nlohmann::json::exception); a text beyond the limits above is a parse error, too. The message is
/// short, however long the part is that can't be read.
nlohmann::json parseJson(std::string_view text);

} // namespace agent
