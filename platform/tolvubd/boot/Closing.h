#pragma once

#include <chrono>

namespace tolvubd {

/// Closes the tracked volumes when the machine stops: for each one that is no longer mounted writable, writes
/// a seal with the fingerprint of its file system. The next start compares the fingerprint to find out
/// whether the volume was written in between. The layers stay in place, so a call at any other time does no
/// harm.
///
/// Waits up to `patience` for volumes that are mounted writable, except for those of the system itself, which
/// are never unmounted.
///
/// Fails: std::system_error when the boot record can't be read. Failures with a volume are logged.
void closeVolumes(std::chrono::seconds patience);

} // namespace tolvubd
