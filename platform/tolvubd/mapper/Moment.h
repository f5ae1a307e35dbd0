#pragma once

#include "IBackEnd.h"
#include "mapper/LayerStack.h"

namespace tolvubd {

/// Takes the snapshot of a volume: all that was written before is in it, nothing that comes after. Notes the
/// era that begins with it, and has the devices watched.
///
/// Fails: the volume goes on then, and its table is the one that it had, or the new one.
void takeMoment(const SnapshotPlan& plan, LayerStack& stack, Device& device);

} // namespace tolvubd
