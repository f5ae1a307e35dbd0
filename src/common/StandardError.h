#pragma once

#include <string_view>

namespace agent {

/// Writes a text of at most a memory page to standard error, as far as somebody takes it right now. Standard
/// error belongs to whoever has started the agent: one who has gone, or has stopped reading, must neither end
/// the agent nor hold it up, so no SIGPIPE comes of it, and a text that there is no room for is lost.
void writeStandardError(std::string_view text) noexcept;

} // namespace agent
