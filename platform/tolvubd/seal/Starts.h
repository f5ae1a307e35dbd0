#pragma once

#include <string>

namespace tolvubd {

/// Which starts of the machine are on record, in a file of one line each, oldest first.
///
/// Threads: callers take turns.
/// Fails:   std::system_error.

/// Notes this start, durably, unless it is noted already.
void noteStart(const std::string& path);
/// The last one on record that isn't this one; empty when none is, or the record can't be read.
std::string previousStart(const std::string& path);

} // namespace tolvubd
