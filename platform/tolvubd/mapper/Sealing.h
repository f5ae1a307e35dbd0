#pragma once

#include "Table.h"
#include "mapper/LayerStack.h"

namespace tolvubd {

/// Writes the seal of a live device, unless the present seal has the same content.
void renewSeal(const LayerStack& stack, const Device& device);
/// Whether the seal was written since this start of the machine, for this state of the device.
bool isSealed(const LayerStack& stack, const Device& device);
/// Updates the boot record to the devices of the table.
void updateBootRecord(const Table& table);

} // namespace tolvubd
