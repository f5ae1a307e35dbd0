#include "seal/Trust.h"

namespace tolvubd {} // namespace tolvubd
