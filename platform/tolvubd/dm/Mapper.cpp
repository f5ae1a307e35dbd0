#include "dm/Mapper.h"

namespace tolvubd {} // namespace tolvubd
