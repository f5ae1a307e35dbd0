#include "dm/Watcher.h"

namespace tolvubd {} // namespace tolvubd
