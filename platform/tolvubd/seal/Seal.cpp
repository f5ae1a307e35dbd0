#include "seal/Seal.h"

namespace tolvubd {} // namespace tolvubd
