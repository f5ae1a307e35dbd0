#pragma once

#include "IBackEnd.h"
#include "mapper/LayerStack.h"

namespace tolvubd {

/// Takes the snapshot of a volume: it contains all earlier writes and no later ones. Records the era that
/// begins with it, and starts the watcher.
///
/// Fails: std::system_error. The volume is resumed then, with its previous table or with the new one.
void takeSnapshot(const SnapshotPlan& plan, LayerStack& stack, Device& device);

} // namespace tolvubd
