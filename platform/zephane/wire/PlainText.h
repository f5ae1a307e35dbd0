#pragma once

#include <string>

namespace zephane::wire {

/// Whether a text is UTF-8 without control characters, so that it can stand in a line of a log.
bool isPlainText(const std::string& text);

} // namespace zephane::wire
