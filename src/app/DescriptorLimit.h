#pragma once

namespace agent::app {

/// Raises the soft limit of open file descriptors to 16384, or to the hard limit if that is lower: the
/// connections to the API alone could use up the usual 1024. Scripts inherit the limit, and some programs
/// loop over all possible descriptors, so it isn't raised further.
void raiseDescriptorLimit();

} // namespace agent::app
