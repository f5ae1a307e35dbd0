#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstddef>
#include <string_view>

namespace agent {

/// parseJson refuses deeper documents: code that visits a document, even its destructor, may recurse.
inline constexpr int maxJsonNesting = 128;
/// parseJson refuses documents with more values: a short text such as "[[],[],..." needs twenty times its
/// size once it is parsed.
inline constexpr std::size_t maxJsonValues = 1'000'000;

/// Parses an untrusted text. Throws nlohmann::json::exception if the text isn't JSON or exceeds the limits
/// above. The message is short even if the part that can't be read is long.
nlohmann::json parseJson(std::string_view text);

} // namespace agent
