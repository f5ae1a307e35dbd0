#pragma once

#include "seal/Seal.h"

#include <optional>
#include <string>

namespace tolvubd {

/// Why the volume may have been written without its layers since the seal was written; none if that is
/// impossible. Call this before the volume is mounted, because the first mount changes the answer.
///
/// Any seal that isn't broken holds if the fingerprints are equal: nothing was written. An open seal, as a
/// crash leaves it, also holds in these cases:
/// - ext: the journal has yet to be replayed, and mount time, mount count and last check are equal.
/// - XFS: the log has yet to be replayed, and the seal is from `previousBootId`, the last start of this
///   machine on record before this one. The log doesn't show whether another system has mounted the volume in
///   between and stopped without an unmount.
///
/// When in doubt, this returns a reason.
std::optional<std::string> reasonForDoubt(const Seal& seal, const std::optional<Fingerprint>& now,
                                          const std::string& previousBootId);

} // namespace tolvubd
