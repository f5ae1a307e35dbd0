#pragma once

#include <string>

namespace tolvubd {

/// The record of the machine's starts: a file with a boot_id per line, oldest first.
///
/// Threads: one at a time; callers hold the driver's lock when they write.
/// Fails:   std::system_error.

/// Adds this start to the record, durably, unless it is the last entry already.
void recordBoot(const std::string& path);
/// The boot ID of the last start on record before this one; empty when there is none, or the record can't be
/// read.
std::string previousBootId(const std::string& path);

} // namespace tolvubd
