#pragma once

namespace agent::app {

/// Raises the number of descriptors that the process may open, as far as the administrator lets it: the usual
/// 1024 would be used up by the connections to the API alone. Scripts inherit the number, and some programs
/// walk through all that they may have, so it stays below what would keep those busy.
void raiseDescriptorLimit();

} // namespace agent::app
