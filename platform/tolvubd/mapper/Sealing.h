#pragma once

#include "Table.h"
#include "mapper/LayerStack.h"

namespace tolvubd {

/// Writes the seal of a device that is live, unless the one that is there says the same.
void renewSeal(const LayerStack& stack, const Device& device);
/// Whether the seal is that of this start of the machine and of this state of the device.
bool isSealed(const LayerStack& stack, const Device& device);
/// Brings the boot record to what the table says.
void noteForStart(const Table& table);

} // namespace tolvubd
