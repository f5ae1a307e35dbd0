#include "dm/SuspendedDevice.h"

namespace tolvubd {} // namespace tolvubd
