#include "dm/FilePlaces.h"

namespace tolvubd {} // namespace tolvubd
