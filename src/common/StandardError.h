#pragma once

#include <string_view>

namespace agent {

/// Writes at most the first PIPE_BUF bytes of `text` to standard error, if there is room for them right now.
/// The reader of standard error is whoever has started the agent. A reader that has exited or stopped reading
/// must neither end the agent nor block it: this raises no SIGPIPE and drops text that doesn't fit.
void writeStandardError(std::string_view text) noexcept;

} // namespace agent
