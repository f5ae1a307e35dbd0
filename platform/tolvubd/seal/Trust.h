#pragma once

#include "seal/Seal.h"

#include <optional>
#include <string>

namespace tolvubd {

/// Why something may have been written to the volume, since the seal was, that its layers haven't seen; none
/// when that can't be. To be asked before the volume is mounted, as the first mount changes the answer.
///
/// Each holds while the fingerprint is equal in all: nothing was written. An open one, as a crash leaves it,
/// also holds
/// - for ext, while the journal has yet to be replayed and mount time, mount count and last check are equal;
/// - for XFS, while its log has yet to be replayed and `previousStart`, the last start of this machine that
///   is on record before this one, is that of the seal. Its log doesn't tell of a mount in between by some
///   other system that stopped without an unmount.
///
/// In any doubt there is a reason.
std::optional<std::string> reasonForDoubt(const Seal& seal, const std::optional<Fingerprint>& now,
                                          const std::string& previousStart);

} // namespace tolvubd
