#include "lvm/LogicalVolume.h"

namespace tolvubd {} // namespace tolvubd
